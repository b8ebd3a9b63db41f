#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <string>

#include "Descriptor.h"

namespace vcctl {

// Bytes that a connection's socket holds for a peer, or from one, that takes no more: what is
// queued further away is nobody's to drop or to pass.
inline constexpr int kSocketBuffer = 256 << 10;

// The next connection to `listener`; empty, with errno set, when there is none.
support::Descriptor acceptFrom(int listener);

// A TCP address from the command line, "ADDR:PORT" or "[ADDR]:PORT".
class Endpoint {
public:
    // Throws CommandError when `text` is not an address, or when it is not a loopback address and
    // `allowRemote` is not set.
    static Endpoint parse(const std::string& text, bool allowRemote);

    // A listening socket. Throws CommandError (address in use, not allowed ...).
    support::Descriptor listen() const;
    // A connected socket; empty, with errno set, when the other end is not there (yet), the system
    // has no descriptor left, or the user wants to stop.
    support::Descriptor connect() const;

    const std::string& text() const { return m_text; }

private:
    std::string m_text;
    sockaddr_storage m_address{};
    socklen_t m_length = 0;
};

// The port a listening socket got: what port 0 turned into.
unsigned int boundPort(int fd);

}  // namespace vcctl
