#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <string>

#include "Descriptor.h"

namespace vcctl {

// Size of a connection's send and receive buffers, in bytes. Data queued in them can no longer be
// dropped or overtaken.
inline constexpr int kSocketBuffer = 192 << 10;

// The next connection to `listener`; empty, with errno set, when there is none. Another user's
// connection over a Unix-domain socket is refused: EACCES.
support::Descriptor acceptFrom(int listener);

// An address from the command line: "ADDR:PORT" or "[ADDR]:PORT" for TCP, "unix:PATH" for a
// Unix-domain socket, which only its owner can use.
class Endpoint {
public:
    // Throws CommandError when `text` is not an address, or when it is not a loopback address and
    // `allowRemote` is not set.
    static Endpoint parse(const std::string& text, bool allowRemote);

    // A listening socket. Throws CommandError (address in use, not allowed ...).
    support::Descriptor listen() const;
    // A connected socket; empty, with errno set, when the peer is not listening (yet), descriptors
    // are exhausted, or the user wants to stop.
    support::Descriptor connect() const;

    const std::string& text() const { return m_text; }
    // The address of the socket that listen() returned, with its actual port.
    std::string boundText(int listener) const;
    // Removes the socket file that listen() created.
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
