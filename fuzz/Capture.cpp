// Decodes a capture file. What is read from it is written to a new capture, which must
// hold the same packets.
#include "Capture.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "CommandError.h"

namespace {

// A file in memory, by its path.
class MemoryFile {
public:
    MemoryFile() : m_fd(memfd_create("capture", MFD_CLOEXEC)) {
        if (m_fd < 0) abort();
    }
    ~MemoryFile() { close(m_fd); }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    int fd() const { return m_fd; }
    std::string path() const { return "/proc/self/fd/" + std::to_string(m_fd); }

private:
    const int m_fd;
};

std::vector<vcctl::CapturedPacket> packetsOf(const std::string& path, bool& whole) {
    std::vector<vcctl::CapturedPacket> packets;
    whole = false;
    try {
        vcctl::CaptureReader reader(path);
        while (auto packet = reader.next()) packets.push_back(std::move(*packet));
        whole = true;
    } catch (const vcctl::CommandError&) {
    }
    return packets;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const MemoryFile file;
    if (write(file.fd(), data, size) != static_cast<ssize_t>(size)) abort();
    bool whole = false;
    const auto packets = packetsOf(file.path(), whole);
    const MemoryFile again;
    {
        vcctl::CaptureWriter writer(again.path(), "fuzz");
        for (const auto& packet : packets) {
            writer.write(packet.direction, packet.bytes.data(),
                         static_cast<std::uint32_t>(packet.bytes.size()));
        }
    }
    const auto repeated = packetsOf(again.path(), whole);
    if (!whole || repeated.size() != packets.size()) abort();
    for (std::size_t i = 0; i < packets.size(); ++i) {
        if (repeated[i].bytes != packets[i].bytes) abort();
        if (repeated[i].direction != packets[i].direction) abort();
    }
    return 0;
}
