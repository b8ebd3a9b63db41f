#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <string>

#include "Descriptor.h"

namespace vcctl {

// Bytes that a connection's socket holds for a peer, or from one, that takes no more: what is
// queued further away is nobody's to drop or to pass.
inline constexpr int kSocketBuffer = 192 << 10;

// The next connection to `listener`; empty, with errno set, when there is none. A connection of
// another user over a Unix-domain socket is refused: EACCES.
support::Descriptor acceptFrom(int listener);

// An address from the command line: "ADDR:PORT" or "[ADDR]:PORT" for TCP, "unix:PATH" for a
// Unix-domain socket, which only its user can use.
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
    // What to connect to for the socket that listen() has made: its port is known now.
    std::string boundText(int listener) const;
    // Removes what listen() has left in the file system.
    void removeFile() const;

private:
    static Endpoint parseUnix(const std::string& text);
    bool isUnix() const { return m_address.ss_family == AF_UNIX; }
    const char* path() const;
    void clearPath() const;

    std::string m_text;
    sockaddr_storage m_address{};
    socklen_t m_length = 0;
};

}  // namespace vcctl
