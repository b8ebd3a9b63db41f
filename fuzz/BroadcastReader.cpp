// The header of a broadcast segment, as any process of the user may write it while a reader is at
// it. The input is a run of records: which word changes (or how the reader looks), and the value.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "PosixSharedMemory.h"
#include "SharedMemoryFactory.h"
#include "SharedMemoryLayout.h"
#include "VDIClientInfo.h"

namespace {

constexpr unsigned int kCapacity = 64;
constexpr char kName[] = "fuzz";

// One segment for all inputs: what one leaves behind is part of the next.
struct Segment {
    Segment() {
        using namespace VDIFrameworkCommon;
        VDIClientInfo::getInstance().setClientType(VDIClientType::Crews);
        if (!reader->Open(kName, kCapacity)) abort();
        const std::string object = std::to_string(geteuid()) + "CWVDI_" + kName;
        const int fd = VDIFrameworkCommon::shm_open_mac(object, O_RDWR, 0);
        void* memory =
            mmap(nullptr, sizeof(SharedMemoryHeader), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        if (fd < 0 || memory == MAP_FAILED) abort();
        close(fd);
        header = static_cast<SharedMemoryHeader*>(memory);
    }
    const std::shared_ptr<SharedMemoryI> reader =
        getSharedMemoryInstance(ESharedMemoryType::Broadcast);
    SharedMemoryHeader* header = nullptr;
};

void change(SharedMemoryHeader& header, uint8_t what, std::uint64_t value) {
    SharedWord* const words[] = {&header.writerLockCount, &header.lockWord2, &header.newMessageId,
                                 &header.readMessageId};
    SharedCount* const counts[] = {&header.chunkCount, &header.chunkIndex, &header.messageLength,
                                   &header.chunkLength};
    if (what < 4) {
        words[what]->store(static_cast<long>(value));
    } else {
        counts[what - 4]->store(static_cast<std::uint32_t>(value));
    }
}

void read(Segment& segment) {
    // Otherwise the reader waits for the writer that holds the lock, or for a message.
    segment.header->writerLockCount = 0;
    segment.header->newMessageId.fetch_add(1);
    unsigned int length = 0;
    const std::string message = segment.reader->ReadData(length, 1);
    if (message.size() != length || length > kCapacity) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static auto* const segment = new Segment;
    for (int reads = 0; size >= 9 && reads < 16; data += 9, size -= 9) {
        std::uint64_t value = 0;
        std::memcpy(&value, data + 1, sizeof value);
        change(*segment->header, data[0] % 8, value);
        if (data[0] >= 0x80) {
            read(*segment);
            ++reads;
        }
    }
    read(*segment);
    return 0;
}
