#include "SocketIo.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

#include "Hop.h"

namespace bench {

namespace {

// An address of either family, with its length.
struct Address {
    union {
        sockaddr any;
        sockaddr_un local;
        sockaddr_in inet;
    };
    socklen_t length;
};

Address abstractAddress(const std::string& name) {
    Address address{};
    address.local.sun_family = AF_UNIX;
    if (name.size() + 1 > sizeof address.local.sun_path) throw std::runtime_error("name too long");
    std::memcpy(address.local.sun_path + 1, name.data(), name.size());
    address.length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    return address;
}

Address loopbackAddress(unsigned short port) {
    Address address{};
    address.inet.sin_family = AF_INET;
    address.inet.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.inet.sin_port = htons(port);
    address.length = sizeof address.inet;
    return address;
}

Descriptor makeSocket(const Address& address) {
    Descriptor made(socket(address.any.sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (made.get() < 0) throwSystemError("socket");
    return made;
}

void sendAtOnce(int socket) {
    const int on = 1;
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

Descriptor listenOn(const Address& address) {
    Descriptor listener = makeSocket(address);
    const int on = 1;
    setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (bind(listener.get(), &address.any, address.length) != 0 || listen(listener.get(), 1) != 0)
        throwSystemError("listening");
    limitWaits(listener.get());
    return listener;
}

Descriptor connectTo(const Address& address) {
    Descriptor socket = makeSocket(address);
    if (connect(socket.get(), &address.any, address.length) != 0) throwSystemError("connect");
    sendAtOnce(socket.get());
    limitWaits(socket.get());
    return socket;
}

}  // namespace

void writeAll(int fd, const void* data, std::size_t length) {
    const char* from = static_cast<const char*>(data);
    while (length > 0) {
        const ssize_t written = write(fd, from, length);
        if (written <= 0) throwSystemError("write");
        from += written;
        length -= static_cast<std::size_t>(written);
    }
}

void readAll(int fd, std::string& message) {
    for (std::size_t got = 0; got < message.size();) {
        const ssize_t more = read(fd, message.data() + got, message.size() - got);
        if (more < 0) throwSystemError("read");
        if (more == 0) throw std::runtime_error("the peer is gone");
        got += static_cast<std::size_t>(more);
    }
}

void limitWaits(int socket) {
    const timeval patience{kHopPatienceMs / 1000, 0};
    setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
}

Descriptor listenOnAbstract(const std::string& name) { return listenOn(abstractAddress(name)); }
Descriptor connectToAbstract(const std::string& name) { return connectTo(abstractAddress(name)); }
Descriptor listenOnLoopback(unsigned short port) { return listenOn(loopbackAddress(port)); }
Descriptor connectToLoopback(unsigned short port) { return connectTo(loopbackAddress(port)); }

unsigned short boundPort(const Descriptor& listener) {
    Address address{};
    address.length = sizeof address.inet;
    if (getsockname(listener.get(), &address.any, &address.length) != 0)
        throwSystemError("getsockname");
    return ntohs(address.inet.sin_port);
}

Descriptor acceptOne(const Descriptor& listener) {
    Descriptor accepted(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (accepted.get() < 0) throwSystemError("accept");
    sendAtOnce(accepted.get());
    limitWaits(accepted.get());
    return accepted;
}

}  // namespace bench
