#include "Endpoint.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>

#include "CommandError.h"
#include "SocketOptions.h"
#include "StopSignal.h"

namespace vcctl {

using support::Descriptor;

namespace {

bool isLoopback(const sockaddr_storage& address) {
    if (address.ss_family == AF_INET) {
        const auto& v4 = reinterpret_cast<const sockaddr_in&>(address);
        return (ntohl(v4.sin_addr.s_addr) >> 24) == 127;
    }
    const auto& v6 = reinterpret_cast<const sockaddr_in6&>(address);
    return IN6_IS_ADDR_LOOPBACK(&v6.sin6_addr);
}

constexpr std::string_view kUnixScheme = "unix:";

// Whether a Unix-domain socket's peer is this user or root; true for TCP.
bool isOfThisUser(int socket) {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    if (getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length) != 0) return false;
    if (address.ss_family != AF_UNIX) return true;
    const auto user = peerUser(socket);
    return user && (*user == geteuid() || *user == 0);
}

bool isPort(const std::string& text) {
    unsigned int port = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, port);
    return error == std::errc() && stop == end && port <= 65535;
}

// Not inherited by programs that the library starts. (macOS has no flag for it at creation.)
Descriptor closedByExec(int fd) {
    if (fd >= 0) fcntl(fd, F_SETFD, FD_CLOEXEC);
    return Descriptor(fd);
}

// Empty, with errno set, on failure.
Descriptor openSocket(int family) {
    Descriptor fd = closedByExec(socket(family, SOCK_STREAM, 0));
    // Set before listen() or connect(): the advertised window depends on it.
    if (fd) setsockopt(fd.get(), SOL_SOCKET, SO_RCVBUF, &kSocketBuffer, sizeof kSocketBuffer);
    return fd;
}

// The result of a pending connect, as errno.
int outcomeOfConnect(int fd) {
    pollfd waited[2] = {{fd, POLLOUT, 0}, {StopSignal::descriptor(), POLLIN, 0}};
    while (poll(waited, 2, -1) < 0 || !waited[0].revents) {
        if (waited[1].revents) StopSignal::drain();
        if (StopSignal::requested()) return EINTR;
    }
    int error = 0;
    socklen_t length = sizeof error;
    return getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) == 0 ? error : errno;
}

// A connect to a local port where nobody listens may be assigned that very port, and then connects
// to itself.
bool isConnectedToItself(int fd) {
    sockaddr_storage own{};
    sockaddr_storage peer{};
    socklen_t ownLength = sizeof own;
    socklen_t peerLength = sizeof peer;
    return getsockname(fd, reinterpret_cast<sockaddr*>(&own), &ownLength) == 0 &&
           getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &peerLength) == 0 &&
           own.ss_family != AF_UNIX && ownLength == peerLength &&
           std::memcmp(&own, &peer, ownLength) == 0;
}

}  // namespace

Descriptor acceptFrom(int listener) {
    Descriptor fd = closedByExec(accept(listener, nullptr, nullptr));
    if (fd && !isOfThisUser(fd.get())) {
        fd.reset();
        errno = EACCES;
    }
    return fd;
}

Endpoint Endpoint::parseUnix(const std::string& text) {
    const std::string path = text.substr(kUnixScheme.size());
    Endpoint endpoint;
    auto& address = reinterpret_cast<sockaddr_un&>(endpoint.m_address);
    if (path.empty() || path.size() >= sizeof address.sun_path) {
        throw CommandError("'" + text + "': the path may have 1 to " +
                               std::to_string(sizeof address.sun_path - 1) + " bytes",
                           kUsage);
    }
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, path.size());
    endpoint.m_text = text;
    endpoint.m_length = sizeof address;
    return endpoint;
}

Endpoint Endpoint::parse(const std::string& text, bool allowRemote) {
    if (text.starts_with(kUnixScheme)) return parseUnix(text);
    const auto colon = text.rfind(':');
    if (colon == std::string::npos || !isPort(text.substr(colon + 1))) {
        throw CommandError(
            "'" + text + "' is neither ADDR:PORT, for example 127.0.0.1:7000, nor unix:PATH",
            kUsage);
    }
    std::string host = text.substr(0, colon);
    if (host.size() > 1 && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
    }
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* found = nullptr;
    const int failed = getaddrinfo(host.empty() ? "127.0.0.1" : host.c_str(),
                                   text.c_str() + colon + 1, &hints, &found);
    if (failed != 0) {
        throw CommandError("'" + text + "': " + gai_strerror(failed));
    }
    Endpoint endpoint;
    endpoint.m_text = text;
    std::memcpy(&endpoint.m_address, found->ai_addr, found->ai_addrlen);
    endpoint.m_length = found->ai_addrlen;
    freeaddrinfo(found);
    if (!allowRemote && !isLoopback(endpoint.m_address)) {
        throw CommandError("'" + text +
                               "' is not a loopback address. The link is neither encrypted nor "
                               "authenticated; --allow-remote uses it all the same",
                           kUsage);
    }
    return endpoint;
}

Descriptor Endpoint::listen() const {
    Descriptor fd = openSocket(m_address.ss_family);
    if (!fd) throw systemError("cannot make a socket", errno);
    const int on = 1;
    if (isUnix()) {
        clearPath();
    } else {
        setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    }
    // Setting the mode after bind() is safe: nobody can connect before listen().
    if (bind(fd.get(), reinterpret_cast<const sockaddr*>(&m_address), m_length) != 0 ||
        (isUnix() && chmod(path(), 0600) != 0) || ::listen(fd.get(), 4) != 0) {
        const int error = errno;
        if (error == EADDRINUSE) {
            throw CommandError("cannot listen on " + m_text + ": the " +
                               (isUnix() ? "path is in use. Stop what listens there, or choose "
                                           "another one"
                                         : "port is in use. Stop what listens there, or choose "
                                           "another port (0 lets the system choose)"));
        }
        throw systemError("cannot listen on " + m_text, error);
    }
    return fd;
}

const char* Endpoint::path() const {
    return reinterpret_cast<const sockaddr_un&>(m_address).sun_path;
}

void Endpoint::removeFile() const {
    if (isUnix()) unlink(path());
}

// Removes the socket file of a killed host.
void Endpoint::clearPath() const {
    struct stat status {};
    if (lstat(path(), &status) != 0 || !S_ISSOCK(status.st_mode) || status.st_uid != geteuid())
        return;
    if (!connect() && errno == ECONNREFUSED) removeFile();
}

Descriptor Endpoint::connect() const {
    Descriptor fd = openSocket(m_address.ss_family);
    if (!fd) return fd;
    const int flags = fcntl(fd.get(), F_GETFL);
    fcntl(fd.get(), F_SETFL, flags | O_NONBLOCK);
    const auto* address = reinterpret_cast<const sockaddr*>(&m_address);
    int error = ::connect(fd.get(), address, m_length) == 0 ? 0 : errno;
    if (error == EINPROGRESS) error = outcomeOfConnect(fd.get());
    if (error == 0 && isConnectedToItself(fd.get())) error = ECONNREFUSED;
    if (error == 0 && !isOfThisUser(fd.get())) error = EACCES;
    fcntl(fd.get(), F_SETFL, flags);
    if (error == 0) return fd;
    fd.reset();
    errno = error;
    return fd;
}

std::string Endpoint::boundText(int listener) const {
    if (isUnix()) return m_text;
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
    const unsigned int port = address.ss_family == AF_INET
                                  ? ntohs(reinterpret_cast<sockaddr_in&>(address).sin_port)
                                  : ntohs(reinterpret_cast<sockaddr_in6&>(address).sin6_port);
    return m_text.substr(0, m_text.rfind(':') + 1) + std::to_string(port);
}

}  // namespace vcctl
