// A far side that sends whatever it likes, whole or in packets. The build target `full_runs` sends
// a million messages.
#include <sys/resource.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <random>

#include "AgentFixture.h"
#include "PacketBytes.h"
#include "Rounds.h"
#include "StreamRules.h"

using namespace testsupport;
using namespace VirtualChannelAgent;

namespace {

using Random = std::mt19937;

std::size_t below(Random& random, std::size_t bound) { return random() % bound; }

std::string anyBytes(Random& random, std::size_t longest) {
    std::string bytes(below(random, longest + 1), '\0');
    for (auto& byte : bytes) byte = static_cast<char>(random());
    return bytes;
}

std::string anyName(Random& random) {
    static const char* const names[] = {
        "Media",  "Basic", "LogCollection", "upgrade",  "Generic", "/",   "..", "",
        "a/../b", "-",     "\x01",          "\xFF\xFE", "s|t\\u",  "%s%n"};
    const std::string unusual[] = {infoInputName(), infoOutputName(), std::string(300, 'n')};
    switch (below(random, 4)) {
        case 0:
            return anyBytes(random, 12);
        case 1:
            return "s" + std::to_string(below(random, 5000));
        case 2:
            return unusual[below(random, std::size(unusual))];
        default:
            return names[below(random, std::size(names))];
    }
}

unsigned int anySize(Random& random) {
    static const unsigned int sizes[] = {
        0, 1, 1000, 10240, kMaxStreamSize, kMaxStreamSize + 1, 0xFFFFFFFF};
    return sizes[below(random, std::size(sizes))];
}

VCMessage anyMessage(Random& random) {
    auto message = control(static_cast<MessageTypeEnum>(below(random, 14)));
    const auto present = random();
    if (present & 7) message.setStreamName(anyName(random));
    if (present & 14) message.setStreamType(static_cast<unsigned int>(below(random, 4)));
    if (present & 28) message.setStreamSize(anySize(random));
    if (present & 64) {
        const auto data = anyBytes(random, 600);
        message.setRouteData(data.data(), static_cast<unsigned int>(data.size()));
    }
    if (present & 128) message.setSupportedStreams(anyBytes(random, 100));
    if (present & 256) message.setChannelVersion(anyBytes(random, 50));
    if (present & 512) message.setInternalVersion(std::to_string(static_cast<int>(random())));
    if (present & 1024) message.setClientVersion(anyBytes(random, 50));
    if (present & 2048) message.setUnsupportedMessageType(static_cast<unsigned char>(random()));
    return message;
}

// Damages a good message: bits, lengths, a cut, or something added.
void mutate(Random& random, std::string& bytes) {
    switch (below(random, 4)) {
        case 0:
            for (int i = 0; i < 3; ++i)
                bytes[below(random, bytes.size())] ^= static_cast<char>(random());
            break;
        case 1:
            bytes.resize(below(random, bytes.size() + 1));
            break;
        case 2:
            bytes += anyBytes(random, 40);
            break;
        default:
            if (bytes.size() > 29) {
                const auto size = static_cast<std::uint32_t>(random());
                std::memcpy(bytes.data() + 25, &size, sizeof size);
            }
    }
}

std::string anyBytesOfAFarSide(Random& random) {
    if (below(random, 10) == 0) return anyBytes(random, 300);
    std::string bytes = wireOf(anyMessage(random));
    if (below(random, 3) == 0) mutate(random, bytes);
    return bytes;
}

// Hands the agent what arrives in packets.
class Wire : public NorvoVirtualChannel::PacketizationObserver {
public:
    explicit Wire(FakeChannel& channel) : m_channel(channel) {}

    // Some packets come damaged, in another order, twice, or not at all.
    void send(Random& random, const std::string& message) {
        auto packets = packettest::cut(m_packets, message);
        if (below(random, 4) == 0) std::shuffle(packets.begin(), packets.end(), random);
        for (const auto& packet : packets) {
            std::string bytes = packettest::textOf(packet->WireBytes());
            if (below(random, 8) == 0) mutate(random, bytes);
            receive(bytes);
            if (below(random, 32) == 0) receive(bytes);
        }
    }
    void OnFullPacketReceived(const void* data, unsigned int size) override {
        delivered++;
        m_channel.callObserver([&](auto& o) { o.OnVirtualChannelReceiveData(data, size); });
    }
    int delivered = 0;

private:
    void receive(const std::string& bytes) {
        const auto packet = NorvoVirtualChannel::Packet::Borrow(
            bytes.data(), static_cast<unsigned int>(bytes.size()));
        // A message that announces more makes the run slow, and no difference.
        if (packet.isPacketValid() && packet.GetMessageSize() <= 1 << 20) {
            m_packets.EnqueuePacket(&packet);
        }
    }

    FakeChannel& m_channel;
    NorvoVirtualChannel::Packetization m_packets{this, 100};
};

// The most memory that this process has had so far.
long peakKilobytes() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

// Sends `count` messages to one agent and goes on living.
void bombard(unsigned int seed, int count) {
    Random random(seed);
    Side side;
    Wire wire(side.channel);
    side.machine->pauseTakes = std::chrono::microseconds(0);
    const auto segmentsBefore = side.machine->segmentCount();
    for (int i = 0; i < count; ++i) {
        const std::string bytes = anyBytesOfAFarSide(random);
        if (i % 2) {
            wire.send(random, bytes);
        } else {
            side.channel.deliver(bytes);
        }
        if (i % 64 == 0) side.channel.takeSent();
    }
    EXPECT_GT(wire.delivered, count / 8);
    EXPECT_LE(side.machine->segmentCount() - segmentsBefore, kMaxPeerStreams);
    // Still of use.
    side.channel.deliver(control(CTL_DISCONNECT));
    side.channel.takeSent();
    side.channel.deliver(control(CTL_CONNECT));
    EXPECT_EQ(side.channel.takeSent().size(), 1U);
}

int messagesToSend() {
    const char* const whole = std::getenv("NORVO_HOSTILE_MESSAGES");
    return whole ? std::atoi(whole) : rounds(150'000);
}

}  // namespace

TEST(AgentHostile, AnyMessagesLeaveTheAgentAliveAndItsMemoryBounded) {
    KLT::kltlogger::setThreshold(0);
    const long peakBefore = peakKilobytes();
    const int count = messagesToSend();
    constexpr int kPerAgent = 10'000;
    for (int done = 0, seed = 1; done < count; done += kPerAgent, ++seed) {
        bombard(static_cast<unsigned int>(seed), std::min(kPerAgent, count - done));
    }
    KLT::kltlogger::setThreshold(KLT::kltlogger::Info);
    // 1001 messages of 600 bytes wait in each of at most 192 streams.
    if (!kSanitized) {
        EXPECT_LT(peakKilobytes() - peakBefore, 500 * 1024);
    }
}
