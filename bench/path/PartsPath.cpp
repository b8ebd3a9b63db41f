// The same hops as ours from the simplest parts: mailbox, queue, TCP, queue, mailbox. A message
// crosses TCP in packets of at most 1500 bytes with a header each, and all waiting packets go out
// in one system call.
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <deque>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <utility>

#include "Path.h"
#include "PeerProcess.h"
#include "SessionObjects.h"
#include "floors/SocketIo.h"

namespace bench {

namespace {

constexpr char kMailbox[] = "futex, parks";
constexpr std::size_t kSlot = 64 * 1024;
constexpr std::size_t kPacket = 1500;

struct PacketHeader {
    std::uint64_t messageSize;
    std::uint64_t offset;
    std::uint64_t payload;
};
constexpr std::size_t kPayload = kPacket - sizeof(PacketHeader);

class MessageQueue {
public:
    void push(std::string message) {
        {
            std::lock_guard lock(m_mutex);
            m_messages.push_back(std::move(message));
        }
        m_filled.notify_one();
    }
    // All waiting messages; at least one.
    std::deque<std::string> takeAll() {
        std::unique_lock lock(m_mutex);
        m_filled.wait(lock, [this] { return !m_messages.empty(); });
        return std::exchange(m_messages, {});
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_filled;
    std::deque<std::string> m_messages;
};

// Sends packets of any number of messages, as many per call as fit.
class PacketSender {
public:
    explicit PacketSender(int socket) : m_socket(socket) {}

    void add(const std::string& message) {
        for (std::size_t done = 0; done < message.size(); done += kPayload) {
            if (m_count == m_headers.size()) flush();
            const std::size_t part = std::min(kPayload, message.size() - done);
            PacketHeader& header = m_headers[m_count];
            header = {message.size(), done, part};
            m_blocks[2 * m_count] = {&header, sizeof header};
            m_blocks[2 * m_count + 1] = {const_cast<char*>(message.data() + done), part};
            ++m_count;
        }
    }
    void flush() {
        iovec* next = m_blocks.data();
        std::size_t left = 2 * std::exchange(m_count, 0);
        while (left > 0) {
            msghdr whole{};
            whole.msg_iov = next;
            whole.msg_iovlen = left;
            const ssize_t sent = sendmsg(m_socket, &whole, MSG_NOSIGNAL);
            if (sent <= 0) throwSystemError("sendmsg");
            skip(next, left, static_cast<std::size_t>(sent));
        }
    }

private:
    static void skip(iovec*& next, std::size_t& left, std::size_t bytes) {
        for (; left > 0 && bytes >= next->iov_len; ++next, --left) bytes -= next->iov_len;
        if (left == 0) return;
        next->iov_base = static_cast<char*>(next->iov_base) + bytes;
        next->iov_len -= bytes;
    }

    static constexpr std::size_t kMost = 512;  // twice as many blocks fit into one call
    const int m_socket;
    std::size_t m_count = 0;
    std::array<PacketHeader, kMost> m_headers;
    std::array<iovec, 2 * kMost> m_blocks;
};

// Joins incoming packets, which are in order, into messages.
class PacketReceiver {
public:
    explicit PacketReceiver(int socket) : m_socket(socket), m_buffer(256 * 1024, '\0') {}

    template <class Take>
    void receiveSome(const Take& take) {
        const ssize_t got =
            recv(m_socket, m_buffer.data() + m_filled, m_buffer.size() - m_filled, 0);
        if (got <= 0) throw std::runtime_error("the other relay is gone");
        m_filled += static_cast<std::size_t>(got);
        std::size_t used = 0;
        PacketHeader header{};
        while (m_filled - used >= sizeof header) {
            std::memcpy(&header, m_buffer.data() + used, sizeof header);
            if (m_filled - used < sizeof header + header.payload) break;
            join(header, m_buffer.data() + used + sizeof header, take);
            used += sizeof header + header.payload;
        }
        m_filled -= used;
        std::memmove(m_buffer.data(), m_buffer.data() + used, m_filled);
    }

private:
    template <class Take>
    void join(const PacketHeader& header, const char* payload, const Take& take) {
        if (header.offset == 0) m_message.reserve(header.messageSize);
        m_message.append(payload, header.payload);
        if (m_message.size() == header.messageSize) take(std::exchange(m_message, {}));
    }

    const int m_socket;
    std::string m_buffer;
    std::size_t m_filled = 0;
    std::string m_message;
};

std::unique_ptr<Hop> openMailbox(const std::string& name, bool writes, bool creates) {
    return findHopKind(kMailbox)->open({name, kSlot, writes, creates});
}

// Runs until a neighbour disappears, which ends the process.
[[noreturn]] void runRelay(Hop& from, std::size_t size, Hop& to, const Descriptor& wire) {
    MessageQueue out;
    MessageQueue in;
    const auto guarded = [](auto step) {
        return std::thread([step] {
            try {
                for (;;) step();
            } catch (const std::exception&) {
                _exit(1);
            }
        });
    };
    PacketSender sender(wire.get());
    PacketReceiver receiver(wire.get());
    std::thread threads[] = {
        guarded([&] {
            std::string message(size, ' ');
            from.receive(message);
            out.push(std::move(message));
        }),
        guarded([&] {
            const auto messages = out.takeAll();
            for (const auto& message : messages) sender.add(message);
            sender.flush();
        }),
        guarded([&] {
            receiver.receiveSome([&](std::string message) { in.push(std::move(message)); });
        }),
        guarded([&] {
            for (const auto& message : in.takeAll()) to.send(message.data(), message.size());
        })};
    for (auto& thread : threads) thread.join();
    _exit(1);
}

class PartsRelays : public PathRelays {
public:
    explicit PartsRelays(const PathRun& run)
        : m_name(uniquePathName()),
          m_far("parts_relay", {"far", address(PathEnd::Far), std::to_string(run.answer)}),
          m_near("parts_relay",
                 {"near", address(PathEnd::Near), std::to_string(run.size), m_far.readLine()}) {
        if (m_near.readLine() != "joined" || m_far.readLine() != "joined")
            throw std::runtime_error("the relays did not start");
    }
    ~PartsRelays() override {
        m_near.kill();
        m_far.kill();
        support::removeSessionObjects(m_name);
    }
    PartsRelays(const PartsRelays&) = delete;
    PartsRelays& operator=(const PartsRelays&) = delete;

    std::string address(PathEnd end) const override {
        return m_name + (end == PathEnd::Near ? ".near" : ".far");
    }
    std::vector<pid_t> processes() const override { return {m_far.pid(), m_near.pid()}; }

private:
    const std::string m_name;
    PeerProcess m_far;
    PeerProcess m_near;
};

class MailboxEnd : public Hop {
public:
    explicit MailboxEnd(const std::string& address)
        : m_out(openMailbox(address + ".in", true, false)),
          m_in(openMailbox(address + ".out", false, false)) {}
    void send(const void* data, std::size_t length) override { m_out->send(data, length); }
    void receive(std::string& message) override { m_in->receive(message); }

private:
    std::unique_ptr<Hop> m_out;
    std::unique_ptr<Hop> m_in;
};

std::unique_ptr<PathRelays> start(const PathRun& run) { return std::make_unique<PartsRelays>(run); }

std::unique_ptr<Hop> join(PathEnd, const std::string& address, const PathRun&) {
    return std::make_unique<MailboxEnd>(address);
}

const PathKindRegistrar entry({"simplest parts", nullptr, start, join});

}  // namespace

// The far relay listens and prints its address; the near one is given it.
BENCH_ROLE(parts_relay) {
    const auto from = openMailbox(args.at(1) + ".in", false, true);
    const auto to = openMailbox(args.at(1) + ".out", true, true);
    Descriptor wire;
    if (args.at(0) == "far") {
        const Descriptor listener = listenOnLoopback(0);
        say(std::to_string(boundPort(listener)));
        wire = acceptOne(listener);
    } else {
        wire = connectToLoopback(static_cast<unsigned short>(std::stoul(args.at(3))));
    }
    say("joined");
    runRelay(*from, std::stoul(args.at(2)), *to, wire);
}

}  // namespace bench
