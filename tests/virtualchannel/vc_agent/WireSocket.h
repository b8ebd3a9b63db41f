// The wire between two test hosts: a Unix-domain socket that keeps packets apart.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <chrono>
#include <stdexcept>
#include <string>

#include "Descriptor.h"
#include "Eventually.h"

namespace testsupport {

class WireSocket {
public:
    // Waits for the other end to connect / connects to an end that listens (within 20 s).
    static WireSocket listenAt(const std::string& path) {
        const WireSocket listener(newSocket());
        const sockaddr_un address = addressOf(path);
        if (bind(listener.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
            listen(listener.fd(), 1) != 0 || !listener.readable(std::chrono::seconds(20))) {
            throw std::runtime_error("nobody connects");
        }
        return WireSocket(accept(listener.fd(), nullptr, nullptr));
    }
    static WireSocket connectTo(const std::string& path) {
        WireSocket made(newSocket());
        const sockaddr_un address = addressOf(path);
        if (!eventually([&] {
                return connect(made.fd(), reinterpret_cast<const sockaddr*>(&address),
                               sizeof address) == 0;
            })) {
            throw std::runtime_error("nobody listens");
        }
        return made;
    }

    // False when the other end has gone.
    bool send(const void* packet, std::size_t length) const {
        return ::send(fd(), packet, length, MSG_NOSIGNAL) >= 0;
    }
    // The next packet; false when the other end has gone, or none came within `timeout`.
    bool receive(std::string& packet, std::chrono::milliseconds timeout) const {
        packet.resize(1 << 13);  // no kind has larger ones
        const ssize_t got = readable(timeout) ? recv(fd(), packet.data(), packet.size(), 0) : 0;
        packet.resize(static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
        return got > 0;
    }
    // Ends a receive() on another thread.
    void hangUp() const { shutdown(fd(), SHUT_RDWR); }

private:
    explicit WireSocket(int fd) : m_fd(fd) {
        if (fd < 0) throw std::runtime_error("no socket");
        fcntl(fd, F_SETFD, FD_CLOEXEC);
    }
    static int newSocket() { return socket(AF_UNIX, SOCK_SEQPACKET, 0); }
    static sockaddr_un addressOf(const std::string& path) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        return address;
    }
    int fd() const { return m_fd.get(); }
    bool readable(std::chrono::milliseconds timeout) const {
        pollfd waited{fd(), POLLIN, 0};
        return poll(&waited, 1, static_cast<int>(timeout.count())) == 1;
    }

    support::Descriptor m_fd;
};

}  // namespace testsupport
