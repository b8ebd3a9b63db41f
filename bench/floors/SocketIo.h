// Descriptors, and whole blocks of bytes through them. Failures throw std::runtime_error.
#pragma once

#include <cstddef>
#include <string>
#include <utility>

namespace bench {

class Descriptor {
public:
    explicit Descriptor(int fd = -1) : m_fd(fd) {}
    ~Descriptor() { reset(); }
    Descriptor(Descriptor&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        reset(std::exchange(other.m_fd, -1));
        return *this;
    }
    int get() const { return m_fd; }
    void reset(int fd = -1);

private:
    int m_fd;
};

void writeAll(int fd, const void* data, std::size_t length);
// Fills `message`.
void readAll(int fd, std::string& message);

// Makes calls on a socket fail after kHopPatienceMs.
void limitWaits(int socket);

// Listening Unix-domain socket, and one that is connected to it; `name` is in Linux's abstract
// namespace, so that nothing is left to remove.
Descriptor listenOnAbstract(const std::string& name);
Descriptor connectToAbstract(const std::string& name);

// The same on the loopback interface, without delays for small segments. Port 0: any free one.
Descriptor listenOnLoopback(unsigned short port);
Descriptor connectToLoopback(unsigned short port);
unsigned short boundPort(const Descriptor& listener);

// The first connection to `listener`, with limited waits.
Descriptor acceptOne(const Descriptor& listener);

}  // namespace bench
