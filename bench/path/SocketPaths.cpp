// Plain sockets: one TCP connection between the ends, and a pair of socat relays as a user would
// start them (Unix-domain socket, TCP, Unix-domain socket; blocks of socat's default size).
// Without "nodelay", a message of two blocks would wait 40 ms for the acknowledgement of the first.
#include <unistd.h>

#include <cstdlib>
#include <sstream>
#include <thread>
#include <utility>

#include "LatencyRecorder.h"
#include "Path.h"
#include "PeerProcess.h"
#include "floors/SocketIo.h"

namespace bench {

namespace {

constexpr std::uint64_t kJoinPatience = 5'000'000'000;  // ns

// Calls `connect` repeatedly while nobody listens.
template <class Connect>
Descriptor connectPatiently(const Connect& connect) {
    const auto start = nowNanoseconds();
    for (;;) {
        try {
            return connect();
        } catch (const std::exception&) {
            if (nowNanoseconds() - start > kJoinPatience) throw;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

// An end of a byte stream. A listening end accepts the connection on first use.
class SocketEnd : public Hop {
public:
    SocketEnd(Descriptor listener, Descriptor socket)
        : m_listener(std::move(listener)), m_socket(std::move(socket)) {}

    void send(const void* data, std::size_t length) override {
        writeAll(connected(), data, length);
    }
    void receive(std::string& message) override { readAll(connected(), message); }

private:
    int connected() {
        if (m_socket.get() < 0) m_socket = acceptOne(m_listener);
        return m_socket.get();
    }

    Descriptor m_listener;
    Descriptor m_socket;
};

unsigned short freePort() { return boundPort(listenOnLoopback(0)); }

class TcpRelays : public PathRelays {
public:
    std::string address(PathEnd) const override { return std::to_string(m_port); }

private:
    const unsigned short m_port = freePort();
};

std::unique_ptr<Hop> joinTcp(PathEnd end, const std::string& address, const PathRun&) {
    const auto port = static_cast<unsigned short>(std::stoul(address));
    if (end == PathEnd::Far)
        return std::make_unique<SocketEnd>(listenOnLoopback(port), Descriptor());
    return std::make_unique<SocketEnd>(
        Descriptor(), connectPatiently([port] { return connectToLoopback(port); }));
}

std::string socatPath() {
    const char* const path = std::getenv("PATH");
    std::istringstream folders(path ? path : "/usr/bin:/bin");
    for (std::string folder; std::getline(folders, folder, ':');) {
        std::string program = folder + "/socat";
        if (access(program.c_str(), X_OK) == 0) return program;
    }
    return {};
}

std::string missingSocat() { return socatPath().empty() ? "socat is not installed" : ""; }

class SocatRelays : public PathRelays {
public:
    SocatRelays()
        : m_name(uniquePathName()),
          m_port(std::to_string(freePort())),
          m_far(kProgramRole,
                {socatPath(), "TCP-LISTEN:" + m_port + ",bind=127.0.0.1,reuseaddr,nodelay",
                 "ABSTRACT-CONNECT:" + address(PathEnd::Far)}),
          m_near(kProgramRole,
                 {socatPath(), "ABSTRACT-LISTEN:" + address(PathEnd::Near),
                  "TCP-CONNECT:127.0.0.1:" + m_port + ",nodelay,retry=500,interval=0.01"}) {}

    std::string address(PathEnd end) const override {
        return m_name + (end == PathEnd::Near ? ".near" : ".far");
    }
    std::vector<pid_t> processes() const override { return {m_far.pid(), m_near.pid()}; }

private:
    const std::string m_name;
    const std::string m_port;
    const PeerProcess m_far;
    const PeerProcess m_near;
};

std::unique_ptr<Hop> joinSocat(PathEnd end, const std::string& address, const PathRun&) {
    if (end == PathEnd::Far)
        return std::make_unique<SocketEnd>(listenOnAbstract(address), Descriptor());
    return std::make_unique<SocketEnd>(
        Descriptor(), connectPatiently([&address] { return connectToAbstract(address); }));
}

template <class Relays>
std::unique_ptr<PathRelays> start(const PathRun&) {
    return std::make_unique<Relays>();
}

const PathKindRegistrar tcp({"direct TCP", nullptr, start<TcpRelays>, joinTcp});
const PathKindRegistrar socat({"socat", missingSocat, start<SocatRelays>, joinSocat});

}  // namespace

}  // namespace bench
