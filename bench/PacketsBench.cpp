// Splitting messages into packets and joining them again, as two channels do with a transport
// between them that delivers packets one by one.
#include <algorithm>
#include <atomic>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Harness.h"
#include "Packets.h"

using NorvoVirtualChannel::Header;
using NorvoVirtualChannel::Packet;
using NorvoVirtualChannel::Packetization;
using NorvoVirtualChannel::PacketizationObserver;

namespace {

struct Receiver : PacketizationObserver {
    void OnFullPacketReceived(const void* data, unsigned int size) override {
        bench::doNotOptimize(static_cast<const char*>(data)[size - 1]);
        bytes += size;
    }
    std::size_t bytes = 0;
};

// A channel sends the last packet first; a transport may also reverse the order.
enum class Order { AsCut, Reversed };

class Ours {
public:
    Ours(int packetSize, std::uint32_t openMessages) : m_packetization(&m_receiver, packetSize) {
        for (std::uint32_t id = 0; id < openMessages; ++id) {
            const Header header{.sequence = 2,
                                .totalPackets = 2,
                                .packetId = id * 2'000'003,
                                .payloadSize = 900,
                                .messageSize = 1824};
            const Packet packet(header, m_filler);
            m_packetization.EnqueuePacket(&packet);
        }
    }

    void cutAndJoin(const std::vector<char>& message, Order order) {
        m_packetization.PacketizeData(message.data(), static_cast<unsigned int>(message.size()),
                                      m_cut);
        while (!m_cut.empty()) {
            const bool front = order == Order::AsCut;
            const std::unique_ptr<Packet> sent(front ? m_cut.front() : m_cut.back());
            front ? m_cut.pop_front() : m_cut.pop_back();
            const auto wire = sent->WireBytes();
            const Packet received =
                Packet::Borrow(wire.data(), static_cast<unsigned int>(wire.size()));
            if (received.isPacketValid()) m_packetization.EnqueuePacket(&received);
        }
    }

private:
    char m_filler[900] = {};
    Receiver m_receiver;
    Packetization m_packetization;
    std::deque<Packet*> m_cut;
};

// The plain way, for the same use: any thread may cut and any may join, and each end keeps each
// packet in its own vector.
class VectorPerPacket {
public:
    explicit VectorPerPacket(std::uint32_t packetSize)
        : m_payloadMax(packetSize - NorvoVirtualChannel::kPacketHeaderSize) {}

    void cutAndJoin(const std::vector<char>& message, Order order) {
        cut(message);
        while (!m_cut.empty()) {
            const bool front = order == Order::AsCut;
            const std::vector<char> packet = std::move(front ? m_cut.front() : m_cut.back());
            front ? m_cut.pop_front() : m_cut.pop_back();
            receive(packet.data(), packet.size());
        }
    }

private:
    static Header headerOf(const std::vector<char>& packet) {
        Header header;
        std::memcpy(&header, packet.data(), sizeof header);
        return header;
    }

    void cut(const std::vector<char>& message) {
        const auto length = static_cast<std::uint32_t>(message.size());
        Header header{.totalPackets = (length - 1) / m_payloadMax + 1,
                      .packetId = ++m_lastId,
                      .messageSize = length + 24};
        for (std::uint32_t offset = 0; offset < length; offset += header.payloadSize) {
            ++header.sequence;
            header.payloadSize = std::min(m_payloadMax, length - offset);
            std::vector<char> packet;
            packet.reserve(sizeof header + header.payloadSize);
            const auto bytes = reinterpret_cast<const char*>(&header);
            packet.insert(packet.end(), bytes, bytes + sizeof header);
            packet.insert(packet.end(), message.begin() + offset,
                          message.begin() + offset + header.payloadSize);
            m_cut.push_front(std::move(packet));
        }
    }

    void receive(const char* raw, std::size_t length) {
        std::vector<char> packet(raw, raw + length);
        const Header header = headerOf(packet);
        const std::lock_guard lock(m_mutex);
        auto& parts = m_open[header.packetId];
        parts.push_back(std::move(packet));
        if (parts.size() != header.totalPackets) return;
        std::sort(parts.begin(), parts.end(), [](const auto& a, const auto& b) {
            return headerOf(a).sequence < headerOf(b).sequence;
        });
        std::vector<char> whole;
        whole.reserve(header.messageSize - sizeof header);
        for (const auto& part : parts)
            whole.insert(whole.end(), part.begin() + sizeof header, part.end());
        m_receiver.OnFullPacketReceived(whole.data(), static_cast<unsigned int>(whole.size()));
        m_open.erase(header.packetId);
    }

    const std::uint32_t m_payloadMax;
    std::atomic<std::uint32_t> m_lastId = 0;
    std::mutex m_mutex;
    Receiver m_receiver;
    std::deque<std::vector<char>> m_cut;
    std::map<std::uint32_t, std::vector<std::vector<char>>> m_open;
};

std::string sizeName(std::size_t bytes) {
    return bytes >= 1 << 20 ? std::to_string(bytes >> 20) + " MiB"
                            : std::to_string(bytes >> 10) + " KiB";
}

struct Case {
    std::size_t length;
    int packetSize;
    bench::Bounds bounds;
};

void declare(bench::Suite& suite, const Case& one, Order order) {
    const std::string direction = order == Order::AsCut ? "last packet first" : "in order";
    suite.group(sizeName(one.length) + " at " + std::to_string(one.packetSize) + ", " + direction);
    const auto message = std::make_shared<std::vector<char>>(one.length, 'm');
    const auto copy = std::make_shared<std::vector<char>>(one.length);
    const auto vectors =
        std::make_shared<VectorPerPacket>(static_cast<std::uint32_t>(one.packetSize));
    const auto alone = std::make_shared<Ours>(one.packetSize, 0);
    const auto crowded = std::make_shared<Ours>(one.packetSize, 1000);

    const auto bytes = suite.timed("memcpy", [message, copy] {
        std::memcpy(copy->data(), message->data(), message->size());
        bench::doNotOptimize((*copy)[0]);
    });
    const auto floor =
        suite.timed("one std::vector per packet", [=] { vectors->cutAndJoin(*message, order); });
    const auto ours = suite.timed("cut + join", [=] { alone->cutAndJoin(*message, order); });
    const auto open =
        suite.timed("cut + join, 1000 open", [=] { crowded->cutAndJoin(*message, order); });
    suite.goal("cut + join", ours["time"], floor["time"], one.bounds);
    suite.goal("cut + join over memcpy", ours["time"], bytes["time"], bench::reported());
    const bool judged = order == Order::AsCut && one.length == 64 << 10 && one.packetSize == 1500;
    suite.goal("1000 messages open over none", open["time"], ours["time"],
               judged ? bench::atMost(1.3, 1.1) : bench::reported());
}

// Only the order in which a channel sends is judged.
bench::Bounds boundsOf(std::size_t length, int packetSize, Order order) {
    if (order == Order::Reversed) return bench::reported();
    if (length == 1 << 10 && packetSize == 1000) return bench::atMost(0.65, 0.42);
    if (length == 64 << 10 && packetSize == 1500) return bench::atMost(0.60, 0.40);
    if (length == 1 << 20 && packetSize == 4992) return bench::atMost(0.85, 0.70);
    return bench::reported();
}

}  // namespace

BENCH_SUITE(packets, "cutting messages into packets and joining them, beside a vector per packet") {
    for (const std::size_t length : {1u << 10, 64u << 10, 1u << 20})
        for (const int packetSize : {1000, 1500, 4992})
            for (const Order order : {Order::AsCut, Order::Reversed})
                declare(suite, {length, packetSize, boundsOf(length, packetSize, order)}, order);
}
