#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <string>

namespace vcctl {

// Owns one descriptor.
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int fd) : m_fd(fd) {}
    ~Descriptor();
    Descriptor(Descriptor&& other) noexcept : m_fd(other.release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept;

    int get() const { return m_fd; }
    explicit operator bool() const { return m_fd >= 0; }
    int release();

private:
    int m_fd = -1;
};

// The next connection to `listener`; empty, with errno set, when there is none.
Descriptor acceptFrom(int listener);

// A TCP address from the command line, "ADDR:PORT" or "[ADDR]:PORT".
class Endpoint {
public:
    // Throws CommandError when `text` is not an address, or when it is not a loopback address and
    // `allowRemote` is not set.
    static Endpoint parse(const std::string& text, bool allowRemote);

    // A listening socket. Throws CommandError (address in use, not allowed ...).
    Descriptor listen() const;
    // A connected socket; empty, with errno set, when the other end is not there (yet), or the user
    // wants to stop.
    Descriptor connect() const;

    const std::string& text() const { return m_text; }

private:
    std::string m_text;
    sockaddr_storage m_address{};
    socklen_t m_length = 0;
};

// The port a listening socket got: what port 0 turned into.
unsigned int boundPort(int fd);

}  // namespace vcctl
