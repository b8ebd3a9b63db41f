#include "SegmentSupport.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "PosixSharedMemory.h"

namespace segmenttest {

namespace {

char patternByte(Numbered id, std::size_t index) {
    return static_cast<char>(id.source * 7 + id.number * 13 + index + (index >> 8));
}

}  // namespace

std::string uniqueName() {
    static std::atomic<int> next{0};
    return "segment" + std::to_string(getpid()) + "_" + std::to_string(next++);
}

std::string numberedMessage(Numbered id, std::size_t length) {
    length = std::max(length, kShortestNumbered);
    std::string message(length, '\0');
    const auto announced = static_cast<std::uint32_t>(length);
    std::memcpy(message.data(), &id, sizeof id);
    std::memcpy(message.data() + 8, &announced, sizeof announced);
    for (std::size_t i = kShortestNumbered; i < length; ++i) message[i] = patternByte(id, i);
    return message;
}

std::optional<Numbered> readNumbered(const std::string& message) {
    if (message.size() < kShortestNumbered) return std::nullopt;
    Numbered id{};
    std::uint32_t announced = 0;
    std::memcpy(&id, message.data(), sizeof id);
    std::memcpy(&announced, message.data() + 8, sizeof announced);
    if (announced != message.size()) return std::nullopt;
    for (std::size_t i = kShortestNumbered; i < message.size(); ++i)
        if (message[i] != patternByte(id, i)) return std::nullopt;
    return id;
}

RawSegment::RawSegment(const std::string& name) {
    const std::string object = std::to_string(geteuid()) + "DEFVDI_" + name;
    const int fd = VDIFrameworkCommon::shm_open_mac(object, O_RDWR, 0);
    if (fd < 0) throw std::runtime_error("no segment " + name);
    struct stat status {};
    fstat(fd, &status);
    m_size = static_cast<std::size_t>(status.st_size);
    void* address = mmap(nullptr, m_size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (address == MAP_FAILED) throw std::runtime_error("cannot map " + name);
    m_bytes = static_cast<char*>(address);
}

RawSegment::~RawSegment() { munmap(m_bytes, m_size); }

}  // namespace segmenttest
