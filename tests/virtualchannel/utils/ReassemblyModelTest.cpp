// Compares the receiving side with a simple model, which keeps all packets in one queue and scans a
// table of all messages after each: same messages, same order, same log lines.

#include "PacketBytes.h"
#include "TestSupport.h"

using namespace packettest;

namespace {

class Model {
public:
    void enqueue(const Header& header, const std::string& payload) {
        const std::string id = std::to_string(header.packetId);
        log("Queuing packet to be reassembled.");
        if (header.totalPackets == 1) {
            log("receive message id: " + id);
            log("Packet is within the maximum size limit no need to reassemble.");
            deliver(payload);
            return;
        }
        log("Message has multiple packets, will need to queue.");
        m_queue.push_front({header, payload});
        const auto key = static_cast<std::int32_t>(header.packetId);
        const auto [entry, isFirst] = m_table.try_emplace(key, Counts{0, header.totalPackets});
        log(isFirst ? "This is the first packet from this message."
                    : "An exisiting packet in this message has already been added.");
        Counts& counts = entry->second;
        ++counts.arrived;
        if (counts.arrived == 1 || counts.arrived == counts.total)
            log("receive message id: " + id + "Total: " + std::to_string(counts.total) +
                " Arrived: " + std::to_string(counts.arrived));
        reassemble();
    }
    std::vector<std::string> messages;
    std::vector<std::string> lines;

private:
    struct Queued {
        Header header;
        std::string payload;
    };
    struct Counts {
        std::uint32_t arrived;
        std::uint32_t total;
    };

    void log(const std::string& line) { lines.push_back(line); }
    void deliver(const std::string& message) {
        log("Notifying observer.");
        messages.push_back(message);
    }

    std::vector<Queued> takeFromQueue(std::int32_t id) {
        const auto taken =
            std::stable_partition(m_queue.begin(), m_queue.end(), [&](const auto& queued) {
                return static_cast<std::int32_t>(queued.header.packetId) != id;
            });
        std::vector<Queued> parts(taken, m_queue.end());
        m_queue.erase(taken, m_queue.end());
        return parts;
    }

    void reassemble() {
        log("Checking if a packet can be reassembled.");
        for (auto entry = m_table.begin(); entry != m_table.end();) {
            if (entry->second.arrived != entry->second.total) {
                ++entry;
                continue;
            }
            const bool fits = join(entry->first);
            entry = m_table.erase(entry);
            if (!fits) return;
        }
    }

    bool join(std::int32_t id) {
        log("Entire message found.");
        log("Message ID is " + std::to_string(id) + ".");
        auto parts = takeFromQueue(id);
        log("Unassembled packets size: " + std::to_string(parts.size()));
        std::stable_sort(parts.begin(), parts.end(), [](const auto& a, const auto& b) {
            return static_cast<std::int32_t>(a.header.sequence) <
                   static_cast<std::int32_t>(b.header.sequence);
        });
        const auto size = static_cast<std::int32_t>(parts.front().header.messageSize - 24);
        std::string message;
        for (const auto& queued : parts) {
            if (static_cast<std::int64_t>(message.size() + queued.payload.size()) > size) {
                log("The total size of the segment exceeds the buffer size!");
                return false;
            }
            message += queued.payload;
        }
        message.resize(static_cast<std::size_t>(size), '\0');
        deliver(message);
        return true;
    }

    std::deque<Queued> m_queue;
    std::map<std::int32_t, Counts> m_table;
};

// A packet with few IDs, totals and sequences, so that they collide; occasionally an odd one.
std::pair<Header, std::string> anyPacket(std::mt19937& random) {
    static constexpr std::uint32_t kOdd[] = {0, 1, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF};
    const auto below = [&](unsigned int bound) {
        return static_cast<std::uint32_t>(random() % bound);
    };
    const std::string payload(below(8) == 0 ? below(9000) : below(60),
                              static_cast<char>('a' + below(26)));
    const auto length = static_cast<std::uint32_t>(payload.size());
    Header header = part(below(6), 1 + below(4), 1 + below(4), length + below(9) * below(40));
    if (below(20) == 0) header.sequence = kOdd[below(5)];
    if (below(20) == 0) header.totalPackets = kOdd[below(5)];
    if (below(20) == 0) header.packetId = kOdd[below(5)];
    if (below(50) == 0) header.messageSize = below(2) ? 0x80000018 : 0xFFFFFFFF;
    header.payloadSize = length;
    return {header, payload};
}

}  // namespace

TEST(ReassemblyModel, AgreesOnMessagesOrderAndLogLines) {
    const int seeds = testsupport::rounds(60);
    for (int seed = 0; seed < seeds; ++seed) {
        Model model;
        Receiver receiver;
        Packetization packetization(&receiver, 1500);
        std::mt19937 random(static_cast<unsigned int>(seed));
        testsupport::LogCapture log;
        for (int i = 0; i < 400; ++i) {
            const auto [header, payload] = anyPacket(random);
            const Packet packet(header, payload.data());
            ASSERT_TRUE(packet.isPacketValid());
            model.enqueue(header, payload);
            packetization.EnqueuePacket(&packet);
        }
        ASSERT_EQ(receiver.messages, model.messages) << "seed " << seed;
        ASSERT_EQ(log.lines(), model.lines) << "seed " << seed;
        ASSERT_GT(model.messages.size(), 20u);
    }
}
