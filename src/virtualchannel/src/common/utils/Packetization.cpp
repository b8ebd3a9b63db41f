#include <algorithm>
#include <limits>

#include "Log.h"
#include "PacketBlock.h"
#include "Packets.h"

NORVO_LOG_SOURCE("src/virtualchannel/src/common/utils/Packets")

namespace NorvoVirtualChannel {

Packetization::Packetization(PacketizationObserver* observer, int maxPacketSize)
    : m_maxPacketSize(maxPacketSize), m_observer(observer) {}

Packetization::~Packetization() = default;

std::uint32_t Packetization::GetMaxPayloadSize() const {
    return static_cast<std::uint32_t>(m_maxPacketSize) - kPacketHeaderSize;
}

// 0 when the message cannot be cut.
std::uint32_t Packetization::packetsNeeded(const void* data, unsigned int length) const {
    constexpr auto largest =
        static_cast<unsigned int>(std::numeric_limits<std::int32_t>::max()) - kPacketHeaderSize;
    if (length > largest || (!data && length > 0)) return 0;
    if (m_maxPacketSize < static_cast<int>(kPacketHeaderSize)) return 0;
    if (length == 0) return 1;
    const std::uint32_t payloadMax = GetMaxPayloadSize();
    return payloadMax == 0 ? 0 : (length - 1) / payloadMax + 1;
}

std::uint32_t Packetization::PacketizeData(const void* data, unsigned int length,
                                           std::deque<Packet*>& out) {
    NORVO_LOG(Trace, "Packetizing ", length, " bytes of data.");
    const unsigned int id = UIDGenerator::GetInstance()->GetNextUID();
    const std::uint32_t count = packetsNeeded(data, length);
    NORVO_LOG(Trace, "Packets needed: ", count);
    NORVO_LOG(Trace, "send message id: ", id, ", numPackets: ", count);
    const std::size_t wireSize = length + std::size_t{count} * kPacketHeaderSize;
    PacketBlock* const block = count > 0 ? PacketBlock::allocate(count, wireSize) : nullptr;
    if (!block) {
        NORVO_LOG(Error, "Unable to packetize a message, length: ", length);
        return static_cast<std::uint32_t>(out.size());
    }

    const Header common{
        .totalPackets = count, .packetId = id, .messageSize = length + kPacketHeaderSize};
    auto next = static_cast<const std::byte*>(data);
    std::byte* wire = block->wire();
    std::uint32_t remaining = length;
    for (std::uint32_t index = 0; index < count; ++index) {
        const std::uint32_t size = std::min(remaining, GetMaxPayloadSize());
        out.push_front(::new (block->place(index))
                           Packet(common, index + 1, {next, size}, *block, wire));
        NORVO_LOG(Trace, "Freeing temporary memory.");
        next += size;
        wire += kPacketHeaderSize + size;
        remaining -= size;
    }
    NORVO_LOG(Trace, "Returning the dequeue.");
    return static_cast<std::uint32_t>(out.size());
}

void Packetization::EnqueuePacket(const Packet* packet) {
    NORVO_LOG(Trace, "Queuing packet to be reassembled.");
    if (!packet) {
        NORVO_LOG(Warning, "There is no packet to queue.");
        return;
    }
    const RareContentionGuard guard(m_Mutex);
    forgetIfAsked();
    if (packet->GetTotalPackets() == 1) {
        deliverUnsplit(*packet);
    } else {
        queue(*packet);
    }
    forgetIfAsked();
}

void Packetization::queue(const Packet& packet) {
    NORVO_LOG(Trace, "Message has multiple packets, will need to queue.");
    PendingMessage& message = findOrBegin(packet);
    message.add(packet.m_header, packet.m_payload);
    if (message.arrived() == 1 || message.isComplete()) {
        NORVO_LOG(Trace, "receive message id: ", packet.GetPacketID(), "Total: ", message.total(),
                  " Arrived: ", message.arrived());
    }
    m_latest = &message;
    reassemble();
}

void Packetization::deliverUnsplit(const Packet& packet) {
    NORVO_LOG(Trace, "receive message id: ", packet.GetPacketID());
    NORVO_LOG(Trace, "Packet is within the maximum size limit no need to reassemble.");
    if (!packet.isPacketValid()) {
        NORVO_LOG(Warning, "The payload is NULL.");
        return;
    }
    NORVO_LOG(Trace, "Notifying observer.");
    m_observer->OnFullPacketReceived(packet.Payload().data(), packet.GetPayloadSize());
}

PendingMessage& Packetization::findOrBegin(const Packet& packet) {
    const auto id = static_cast<std::int32_t>(packet.GetPacketID());
    if (PendingMessage* const found = m_pending.find(id)) {
        NORVO_LOG(Trace, "An exisiting packet in this message has already been added.");
        return *found;
    }
    NORVO_LOG(Trace, "This is the first packet from this message.");
    return m_pending.begin(id, packet.GetTotalPackets());
}

void Packetization::ReassemblePackets() {
    const RareContentionGuard guard(m_Mutex);
    reassemble();
}

void Packetization::forgetIfAsked() {
    if (!m_forget.load(std::memory_order_relaxed) || !m_forget.exchange(false)) return;
    m_pending = {};
    m_latest = nullptr;
}

void Packetization::reassemble() {
    NORVO_LOG(Trace, "Checking if a packet can be reassembled.");
    if (!m_latest || !m_latest->isComplete()) return;
    deliver(*m_latest);
    m_pending.finish(*m_latest);
    m_latest = nullptr;
}

void Packetization::deliver(PendingMessage& message) {
    NORVO_LOG(Trace, "Entire message found.");
    NORVO_LOG(Trace, "Message ID is ", message.id(), ".");
    NORVO_LOG(Trace, "Unassembled packets size: ", message.packetCount());
    if (message.packetCount() == 0) {
        NORVO_LOG(Warning, "Empty unassebled packets!!!");
        return;
    }
    const auto whole = message.join();
    if (!whole) return;
    NORVO_LOG(Trace, "Notifying observer.");
    m_observer->OnFullPacketReceived(whole->data(), static_cast<unsigned int>(whole->size()));
}

}  // namespace NorvoVirtualChannel
