// The wire between two test hosts: a Unix-domain socket on which each packet follows its length.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>

namespace testsupport {

class WireSocket {
public:
    // Waits for the other end to connect / connects to an end that listens (within 20 s).
    static WireSocket listenAt(const std::string& path) {
        const WireSocket listener(newSocket());
        const sockaddr_un address = addressOf(path);
        if (bind(listener.m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
            listen(listener.m_fd, 1) != 0 || !listener.readable(std::chrono::seconds(20))) {
            throw std::runtime_error("nobody connects");
        }
        return WireSocket(accept(listener.m_fd, nullptr, nullptr));
    }
    static WireSocket connectTo(const std::string& path) {
        WireSocket made(newSocket());
        const sockaddr_un address = addressOf(path);
        for (int i = 0; i < 2000; ++i) {
            if (connect(made.m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) ==
                0) {
                return made;
            }
            usleep(10'000);
        }
        throw std::runtime_error("nobody listens");
    }
    WireSocket(WireSocket&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    WireSocket(const WireSocket&) = delete;
    WireSocket& operator=(const WireSocket&) = delete;
    ~WireSocket() {
        if (m_fd >= 0) close(m_fd);
    }

    // False when the other end has gone.
    bool send(const void* packet, std::uint32_t length) const {
        return sendAll(&length, sizeof length) && sendAll(packet, length);
    }
    // The next packet; false when the other end has gone, or none came within `timeout`.
    bool receive(std::string& packet, std::chrono::milliseconds timeout) const {
        std::uint32_t length = 0;
        if (!readable(timeout) || !receiveAll(&length, sizeof length)) return false;
        packet.resize(length);
        return receiveAll(packet.data(), length);
    }
    // Ends a receive() on another thread.
    void hangUp() const { shutdown(m_fd, SHUT_RDWR); }

private:
    explicit WireSocket(int fd) : m_fd(fd) {
        if (fd < 0) throw std::runtime_error("no socket");
        fcntl(fd, F_SETFD, FD_CLOEXEC);
    }
    static int newSocket() { return socket(AF_UNIX, SOCK_STREAM, 0); }
    static sockaddr_un addressOf(const std::string& path) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        if (path.size() >= sizeof address.sun_path) throw std::runtime_error("path too long");
        std::memcpy(address.sun_path, path.data(), path.size());
        return address;
    }
    bool readable(std::chrono::milliseconds timeout) const {
        pollfd waited{m_fd, POLLIN, 0};
        return poll(&waited, 1, static_cast<int>(timeout.count())) == 1;
    }
    bool sendAll(const void* data, std::size_t length) const {
        for (auto* bytes = static_cast<const char*>(data); length > 0;) {
            const ssize_t sent = ::send(m_fd, bytes, length, MSG_NOSIGNAL);
            if (sent <= 0) return false;
            bytes += sent;
            length -= static_cast<std::size_t>(sent);
        }
        return true;
    }
    bool receiveAll(void* data, std::size_t length) const {
        for (auto* bytes = static_cast<char*>(data); length > 0;) {
            const ssize_t got = recv(m_fd, bytes, length, 0);
            if (got <= 0) return false;
            bytes += got;
            length -= static_cast<std::size_t>(got);
        }
        return true;
    }

    int m_fd;
};

}  // namespace testsupport
