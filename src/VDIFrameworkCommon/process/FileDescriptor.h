#pragma once

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace VDIFrameworkCommon {

// Owns one file descriptor, or none.
class FileDescriptor {
public:
    explicit FileDescriptor(int fd = -1) : m_fd(fd) {}
    ~FileDescriptor() { reset(); }
    FileDescriptor(FileDescriptor&& other) noexcept : m_fd(other.release()) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        reset(other.release());
        return *this;
    }

    // -1 when there is none.
    int get() const { return m_fd; }
    explicit operator bool() const { return m_fd >= 0; }
    // Closes the current descriptor, if any, and takes over `fd`. Preserves errno.
    void reset(int fd = -1);
    // Hands the descriptor over to the caller.
    int release() { return std::exchange(m_fd, -1); }

private:
    int m_fd;
};

inline void FileDescriptor::reset(int fd) {
    const int old = std::exchange(m_fd, fd);
    if (old < 0) return;
    const int error = errno;
    close(old);
    errno = error;
}

}  // namespace VDIFrameworkCommon
