// A Unix-domain stream socket and a pipe: bytes in order, no framing.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <utility>

#include "Hop.h"

namespace bench {

namespace {

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
    void reset(int fd = -1) {
        if (m_fd >= 0) close(m_fd);
        m_fd = fd;
    }

private:
    int m_fd;
};

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

// In Linux's abstract namespace: nothing to remove afterwards.
sockaddr_un abstractAddress(const std::string& name, socklen_t& length) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (name.size() + 1 > sizeof address.sun_path) throw std::runtime_error("name too long");
    std::memcpy(address.sun_path + 1, name.data(), name.size());
    length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    return address;
}

class SocketHop : public Hop {
public:
    explicit SocketHop(const HopEnd& end)
        : m_socket(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        socklen_t length = 0;
        const sockaddr_un address = abstractAddress(end.name, length);
        const auto* plain = reinterpret_cast<const sockaddr*>(&address);
        if (end.creates) {
            m_listener = std::move(m_socket);
            if (bind(m_listener.get(), plain, length) != 0 || listen(m_listener.get(), 1) != 0)
                throwSystemError("listening");
        } else {
            if (connect(m_socket.get(), plain, length) != 0) throwSystemError("connect");
            limitWaits();
        }
    }
    void peerHasJoined() override {
        m_socket.reset(accept4(m_listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (m_socket.get() < 0) throwSystemError("accept");
        limitWaits();
    }
    void send(const void* data, std::size_t length) override {
        writeAll(m_socket.get(), data, length);
    }
    void receive(std::string& message) override { readAll(m_socket.get(), message); }

private:
    void limitWaits() {
        const timeval patience{kHopPatienceMs / 1000, 0};
        setsockopt(m_socket.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        setsockopt(m_socket.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    }

    Descriptor m_socket;
    Descriptor m_listener;
};

// The peer opens the creator's descriptor through /proc; where it is stands in a small note in
// shared memory that the creator removes.
class PipeHop : public Hop {
public:
    explicit PipeHop(const HopEnd& end) : m_note("/dev/shm/" + end.name), m_created(end.creates) {
        if (m_created) {
            makePipe(end.writes);
        } else {
            std::string path;
            std::getline(std::ifstream(m_note), path);
            m_own.reset(::open(path.c_str(), (end.writes ? O_WRONLY : O_RDONLY) | O_CLOEXEC));
            if (m_own.get() < 0) throwSystemError("opening the pipe");
        }
    }
    ~PipeHop() override {
        if (m_created) unlink(m_note.c_str());
    }
    PipeHop(const PipeHop&) = delete;
    PipeHop& operator=(const PipeHop&) = delete;

    void peerHasJoined() override { m_peers.reset(); }
    void send(const void* data, std::size_t length) override {
        writeAll(m_own.get(), data, length);
    }
    void receive(std::string& message) override { readAll(m_own.get(), message); }

private:
    void makePipe(bool writes) {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) throwSystemError("pipe");
        m_own.reset(ends[writes ? 1 : 0]);
        m_peers.reset(ends[writes ? 0 : 1]);
        std::ofstream(m_note) << "/proc/" << getpid() << "/fd/" << m_peers.get() << '\n';
    }

    std::string m_note;
    bool m_created;
    Descriptor m_own;
    Descriptor m_peers;
};

const HopKindRegistrar socketEntry("Unix socket", [](const HopEnd& end) -> std::unique_ptr<Hop> {
    return std::make_unique<SocketHop>(end);
});
const HopKindRegistrar pipeEntry("pipe", [](const HopEnd& end) -> std::unique_ptr<Hop> {
    return std::make_unique<PipeHop>(end);
});

}  // namespace

}  // namespace bench
