// A Unix-domain stream socket and a pipe: bytes in order, no framing.
#include <fcntl.h>
#include <unistd.h>

#include <fstream>
#include <utility>

#include "Hop.h"
#include "SocketIo.h"

namespace bench {

namespace {

class SocketHop : public Hop {
public:
    explicit SocketHop(const HopEnd& end) {
        if (end.creates) {
            m_listener = listenOnAbstract(end.name);
        } else {
            m_socket = connectToAbstract(end.name);
        }
    }
    void peerHasJoined() override { m_socket = acceptOne(m_listener); }
    void send(const void* data, std::size_t length) override {
        writeAll(m_socket.get(), data, length);
    }
    void receive(std::string& message) override { readAll(m_socket.get(), message); }

private:
    Descriptor m_socket;
    Descriptor m_listener;
};

// The peer opens the creator's descriptor through /proc; its path is in a small
// shared-memory object that the creator removes.
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
