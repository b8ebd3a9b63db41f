#pragma once

#include <unistd.h>

#include <utility>

namespace support {

// Owns one file descriptor, or none.
class Descriptor {
public:
    explicit Descriptor(int fd = -1) : m_fd(fd) {}
    ~Descriptor() { reset(); }
    Descriptor(Descriptor&& other) noexcept : m_fd(other.release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        reset(other.release());
        return *this;
    }

    // -1 when there is none.
    int get() const { return m_fd; }
    explicit operator bool() const { return m_fd >= 0; }
    // Closes what there is and takes over `fd`.
    void reset(int fd = -1) {
        if (m_fd >= 0) close(m_fd);
        m_fd = fd;
    }
    // Gives the descriptor to the caller.
    int release() { return std::exchange(m_fd, -1); }

private:
    int m_fd;
};

}  // namespace support
