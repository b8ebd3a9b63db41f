// Packets as a host passes them in. The input is a byte that says whether to keep the state of
// earlier inputs, then a sequence of records, each a length byte (times 4) and that many bytes of
// one packet.
#include "Packets.h"

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <vector>

using NorvoVirtualChannel::Packet;
using NorvoVirtualChannel::Packetization;
using NorvoVirtualChannel::PacketizationObserver;

namespace {

// Larger announced messages only make the run slower.
constexpr std::uint32_t kLargestMessage = 1 << 20;

struct Receiver : PacketizationObserver {
    void OnFullPacketReceived(const void* data, unsigned int size) override {
        if (!data) abort();
        const auto bytes = static_cast<const unsigned char*>(data);
        volatile unsigned char sum = 0;
        for (unsigned int i = 0; i < size; ++i) sum = static_cast<unsigned char>(sum + bytes[i]);
        delivered += size;
    }
    std::size_t delivered = 0;
};

struct Table {
    Receiver receiver;
    Packetization packets{&receiver, 1500};
};

void checkPacket(const Packet& packet) {
    if (packet.WireBytes().size() != packet.GetPacketSize()) abort();
    const std::unique_ptr<Packet> copy(packet.CopyPacket());
    if (!copy->isPacketValid() || !std::ranges::equal(copy->Payload(), packet.Payload())) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    constexpr int kInputs = 1000;
    static std::unique_ptr<Table> lasting;
    static int inputs = 0;
    if (size == 0) return 0;
    if (inputs++ % kInputs == 0) lasting = std::make_unique<Table>();
    Table passing;
    Packetization& packetization = data[0] % 2 == 0 ? passing.packets : lasting->packets;
    ++data;
    --size;
    while (size > 0) {
        const auto length = static_cast<unsigned int>(std::min<size_t>(4u * data[0], size - 1));
        // A separate allocation, so that reading past its end is detected.
        const std::vector<uint8_t> raw(data + 1, data + 1 + length);
        const Packet packet = Packet::Borrow(raw.data(), length);
        if (packet.isPacketValid()) {
            checkPacket(packet);
            if (packet.GetMessageSize() <= kLargestMessage) packetization.EnqueuePacket(&packet);
        }
        data += 1 + length;
        size -= 1 + length;
    }
    return 0;
}
