// A pair of ZeroMQ proxies: ipc, proxy, tcp, proxy, ipc.
#include <zmq.h>

#include <cstring>
#include <stdexcept>

#include "Path.h"
#include "PeerProcess.h"

namespace bench {

namespace {

[[noreturn]] void throwZeroMqError(const char* what) {
    throw std::runtime_error(std::string(what) + ": " + zmq_strerror(zmq_errno()));
}

// One socket in one context, for the messages of one peer.
class ZeroMqSocket {
public:
    explicit ZeroMqSocket(void* context) : m_socket(zmq_socket(context, ZMQ_DEALER)) {
        if (!m_socket) throwZeroMqError("zmq_socket");
        const int patience = kHopPatienceMs;
        const int none = 0;
        zmq_setsockopt(m_socket, ZMQ_RCVTIMEO, &patience, sizeof patience);
        zmq_setsockopt(m_socket, ZMQ_SNDTIMEO, &patience, sizeof patience);
        zmq_setsockopt(m_socket, ZMQ_LINGER, &none, sizeof none);
    }
    ~ZeroMqSocket() { zmq_close(m_socket); }
    ZeroMqSocket(const ZeroMqSocket&) = delete;
    ZeroMqSocket& operator=(const ZeroMqSocket&) = delete;

    void* get() const { return m_socket; }
    void bind(const std::string& endpoint) {
        if (zmq_bind(m_socket, endpoint.c_str()) != 0) throwZeroMqError("zmq_bind");
    }
    void connect(const std::string& endpoint) {
        if (zmq_connect(m_socket, endpoint.c_str()) != 0) throwZeroMqError("zmq_connect");
    }
    std::string boundTo() const {
        char text[256] = "";
        std::size_t size = sizeof text;
        zmq_getsockopt(m_socket, ZMQ_LAST_ENDPOINT, text, &size);
        return text;
    }

private:
    void* const m_socket;
};

class ZeroMqContext {
public:
    ZeroMqContext() = default;
    ~ZeroMqContext() { zmq_ctx_term(m_context); }
    ZeroMqContext(const ZeroMqContext&) = delete;
    ZeroMqContext& operator=(const ZeroMqContext&) = delete;
    void* get() const { return m_context; }

private:
    void* const m_context = zmq_ctx_new();
};

class ZeroMqEnd : public Hop {
public:
    ZeroMqEnd(PathEnd end, const std::string& endpoint) : m_socket(m_context.get()) {
        end == PathEnd::Far ? m_socket.bind(endpoint) : m_socket.connect(endpoint);
    }
    void send(const void* data, std::size_t length) override {
        if (zmq_send(m_socket.get(), data, length, 0) < 0) throwZeroMqError("zmq_send");
    }
    void receive(std::string& message) override {
        const int length = zmq_recv(m_socket.get(), message.data(), message.size(), 0);
        if (length < 0) throwZeroMqError("zmq_recv");
        if (static_cast<std::size_t>(length) != message.size())
            throw std::runtime_error("a message of the wrong length");
    }

private:
    ZeroMqContext m_context;
    ZeroMqSocket m_socket;
};

class ZeroMqRelays : public PathRelays {
public:
    ZeroMqRelays()
        : m_name(uniquePathName()),
          m_far("zeromq_relay", {"far", address(PathEnd::Far)}),
          m_near("zeromq_relay", {"near", address(PathEnd::Near), m_far.readLine()}) {}

    std::string address(PathEnd end) const override {
        return "ipc://@" + m_name + (end == PathEnd::Near ? ".near" : ".far");
    }
    std::vector<pid_t> processes() const override { return {m_far.pid(), m_near.pid()}; }

private:
    const std::string m_name;
    PeerProcess m_far;
    PeerProcess m_near;
};

std::unique_ptr<PathRelays> start(const PathRun&) { return std::make_unique<ZeroMqRelays>(); }

std::unique_ptr<Hop> join(PathEnd end, const std::string& address, const PathRun&) {
    return std::make_unique<ZeroMqEnd>(end, address);
}

const PathKindRegistrar entry({"ZeroMQ proxies", nullptr, start, join});

}  // namespace

// The far relay listens and prints its address; the near one is given it.
BENCH_ROLE(zeromq_relay) {
    const ZeroMqContext context;
    ZeroMqSocket local(context.get());
    ZeroMqSocket wire(context.get());
    if (args.at(0) == "far") {
        wire.bind("tcp://127.0.0.1:*");
        say(wire.boundTo());
        local.connect(args.at(1));
    } else {
        wire.connect(args.at(2));
        local.bind(args.at(1));
    }
    return zmq_proxy(local.get(), wire.get(), nullptr);
}

}  // namespace bench
