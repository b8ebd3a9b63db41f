// The header of a broadcast segment, as any process of the user may change it during a read.
// The input is a sequence of records: which word changes (or how the reader polls), and the value.
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

using namespace shared_memory;

namespace {

constexpr unsigned int kCapacity = 64;
constexpr char kName[] = "fuzz";

// One segment for all inputs, so that the state after one input carries over to the next.
shared_memory::SharedMemoryHeader& header() {
    static shared_memory::SharedMemoryHeader* const mapped = [] {
        const std::string object = std::to_string(geteuid()) + "CWVDI_" + kName;
        const int fd = VDIFrameworkCommon::shm_open_mac(object, O_RDWR, 0);
        void* memory = mmap(nullptr, sizeof(shared_memory::SharedMemoryHeader),
                            PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        if (fd < 0 || memory == MAP_FAILED) abort();
        close(fd);
        return static_cast<shared_memory::SharedMemoryHeader*>(memory);
    }();
    return *mapped;
}

void change(shared_memory::SharedMemoryHeader& segment, uint8_t what, std::uint64_t value) {
    SharedWord* const words[] = {&segment.writerLockCount, &segment.lockWord2,
                                 &segment.newMessageId, &segment.readMessageId};
    SharedCount* const counts[] = {&segment.chunkCount, &segment.chunkIndex, &segment.messageLength,
                                   &segment.chunkLength};
    if (what < 4) {
        words[what]->store(static_cast<long>(value));
    } else {
        counts[what - 4]->store(static_cast<std::uint32_t>(value));
    }
}

void read(shared_memory::SharedMemoryI& reader) {
    // Otherwise the reader waits for the writer that holds the lock, or for a message.
    header().writerLockCount = 0;
    header().newMessageId.fetch_add(1);
    unsigned int length = 0;
    const std::string message = reader.ReadData(length, 1);
    if (message.size() != length || length > kCapacity) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace VDIFrameworkCommon;
    VDIClientInfo::getInstance().setClientType(VDIClientType::Crews);
    const auto reader =
        shared_memory::getSharedMemoryInstance(shared_memory::ESharedMemoryType::Broadcast);
    if (!reader->Open(kName, kCapacity)) abort();
    for (int reads = 0; size >= 9 && reads < 4; data += 9, size -= 9) {
        std::uint64_t value = 0;
        std::memcpy(&value, data + 1, sizeof value);
        change(header(), data[0] % 8, value);
        if (data[0] >= 0x80) {
            read(*reader);
            ++reads;
        }
    }
    read(*reader);
    reader->Close();
    return 0;
}
