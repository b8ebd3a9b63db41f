// The whole receive path: packets, reassembly, agent, streams. The input is a byte that says
// whether to keep the state of earlier inputs, then a sequence of records: a byte for the action,
// a length byte (times 4), and that many bytes.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <memory>
#include <vector>

#include "FakeChannel.h"
#include "FakeMachine.h"
#include "Packets.h"
#include "StreamRules.h"
#include "VirtualChannelAgent.h"

using NorvoVirtualChannel::Packet;
using NorvoVirtualChannel::Packetization;
using testsupport::FakeChannel;
using testsupport::FakeMachine;

namespace {

// Larger announced messages only make the run slower.
constexpr std::uint32_t kLargestMessage = 1 << 20;
constexpr int kPacketSize = 100;

class FarSide : public NorvoVirtualChannel::PacketizationObserver {
public:
    FarSide() {
        m_channel.takeReceived = [this] { return m_packets.TakeMemory(); };
    }
    void take(unsigned char what, const std::vector<uint8_t>& bytes) {
        switch (what % 8) {
            case 0:
                packet(bytes);
                break;
            case 1:
            case 2:
                message(bytes, what % 8 == 2);
                break;
            case 3:
                available(!bytes.empty());
                break;
            case 4:
                sessionChanges(!bytes.empty());
                break;
            case 5:
                localProcessWrites(bytes);
                break;
            case 6:
                m_machine->otherAgentIsActive = !bytes.empty();
                break;
            default:
                m_channel.takeSent();
        }
    }
    ~FarSide() override { m_agent.stop(); }
    void check() {
        if (m_machine->openSegments() > static_cast<int>(VirtualChannelAgent::kMaxStreams) + 1)
            abort();
        if (!isOfUse()) abort();
        m_channel.takeSent();
    }
    void OnFullPacketReceived(const void* data, unsigned int size) override {
        m_channel.callObserver([&](auto& o) { o.OnVirtualChannelReceiveData(data, size); });
    }

private:
    // Whether a handshake is still answered.
    bool isOfUse() {
        m_machine->otherAgentIsActive = false;
        m_channel.deliver(testsupport::control(VirtualChannelAgent::CTL_DISCONNECT));
        m_channel.takeSent();
        m_channel.deliver(testsupport::control(VirtualChannelAgent::CTL_CONNECT));
        return m_channel.takeSent().size() == 1;
    }
    // Bytes as they come from the host.
    void packet(const std::vector<uint8_t>& bytes) {
        enqueue(Packet::Borrow(bytes.data(), static_cast<unsigned int>(bytes.size())));
    }
    // A complete message, so that its content is tested rather than its packets.
    void message(const std::vector<uint8_t>& bytes, bool reversed) {
        std::deque<Packet*> cut;
        m_packets.PacketizeData(bytes.data(), static_cast<unsigned int>(bytes.size()), cut);
        if (reversed) std::reverse(cut.begin(), cut.end());
        for (Packet* each : cut) {
            const std::unique_ptr<Packet> owned(each);
            enqueue(*owned);
        }
    }
    void enqueue(const Packet& packet) {
        if (packet.isPacketValid() && packet.GetMessageSize() <= kLargestMessage) {
            m_packets.EnqueuePacket(&packet);
        }
    }
    void available(bool is) {
        m_channel.callObserver([=](auto& o) { o.OnVirtualChannelAvailabilityChange(is); });
    }
    void sessionChanges(bool up) {
        m_channel.callObserver([=](auto& o) { o.OnSessionAvailabilityChange(up); });
    }
    void localProcessWrites(const std::vector<uint8_t>& bytes) {
        if (!m_agent.IsConnected()) return;  // it would wait, and there is no other thread
        if (const auto segment = m_machine->segment("Media")) {
            segment->localProcessWrites(std::string(bytes.begin(), bytes.end()));
        }
    }

    std::shared_ptr<FakeMachine> m_machine = [] {
        auto machine = std::make_shared<FakeMachine>();
        machine->pauseTakes = std::chrono::microseconds(0);
        return machine;
    }();
    FakeChannel m_channel;
    VirtualChannelAgent::Agent m_agent{&m_channel, "fuzz", m_machine};
    Packetization m_packets{this, kPacketSize};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    constexpr int kInputs = 1000;
    static std::unique_ptr<FarSide> lasting;
    static int inputs = 0;
    if (size == 0) return 0;
    if (inputs++ % kInputs == 0) lasting = std::make_unique<FarSide>();
    const std::unique_ptr<FarSide> passing =
        data[0] % 2 == 0 ? std::make_unique<FarSide>() : nullptr;
    FarSide& farSide = passing ? *passing : *lasting;
    ++data;
    --size;
    while (size > 1) {
        const size_t length = std::min<size_t>(4u * data[1], size - 2);
        // A separate allocation, so that reading past its end is detected.
        farSide.take(data[0], std::vector<uint8_t>(data + 2, data + 2 + length));
        data += 2 + length;
        size -= 2 + length;
    }
    farSide.check();
    return 0;
}
