#include <utility>
#include <vector>

#include "Log.h"
#include "Packets.h"

namespace NorvoVirtualChannel {

Packetization::Packetization(PacketizationObserver* observer, int maxPacketSize)
    : m_maxPacketSize(maxPacketSize), m_observer(observer) {}

Packetization::~Packetization() = default;

std::uint32_t Packetization::GetMaxPayloadSize() const {
    return static_cast<std::uint32_t>(m_maxPacketSize) - kPacketHeaderSize;
}

std::uint32_t Packetization::PacketizeData(const void* data, unsigned int length,
                                           std::deque<Packet*>& out) {
    MessageFragmenter fragmenter(data, length, m_maxPacketSize);
    std::vector<std::unique_ptr<Packet>> packets;
    packets.reserve(fragmenter.total());
    while (auto packet = fragmenter.next()) packets.push_back(std::move(packet));
    for (; !packets.empty(); packets.pop_back()) {
        out.push_front(packets.back().get());
        static_cast<void>(packets.back().release());
    }
    return static_cast<std::uint32_t>(out.size());
}

void Packetization::EnqueuePacket(const Packet* packet) {
    NORVO_LOG(Trace, "Queuing packet to be reassembled.");
    if (!packet) {
        NORVO_LOG(Warning, "There is no packet to queue.");
        return;
    }
    const VDIFrameworkCommon::LocalLock lock(m_Mutex);
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
    const VDIFrameworkCommon::LocalLock lock(m_Mutex);
    reassemble();
}

void Packetization::freeIncompleteMessages() {
    ForgetIncompleteMessages();
    if (!m_Mutex.try_lock()) return;
    const VDIFrameworkCommon::LocalLock lock(m_Mutex, std::adopt_lock);
    forgetIfAsked();
}

void Packetization::forgetIfAsked() {
    if (!m_forget.load(std::memory_order_relaxed) || !m_forget.exchange(false)) return;
    m_pending = {};
    m_latest = nullptr;
}

void Packetization::reassemble() {
    NORVO_LOG(Trace, "Checking if a packet can be reassembled.");
    if (!m_latest || !m_latest->isComplete()) return;
    PendingMessage& message = *std::exchange(m_latest, nullptr);
    try {
        deliver(message);
    } catch (...) {
        finish(message);
        throw;
    }
    finish(message);
}

void Packetization::finish(PendingMessage& message) {
    m_delivered = nullptr;
    m_pending.finish(message);
}

void Packetization::deliver(PendingMessage& message) {
    NORVO_LOG(Trace, "Entire message found.");
    NORVO_LOG(Trace, "Message ID is ", message.id(), ".");
    NORVO_LOG(Trace, "Unassembled packets size: ", message.packetCount());
    const auto whole = message.join();
    if (!whole) return;
    NORVO_LOG(Trace, "Notifying observer.");
    m_delivered = &message;
    m_observer->OnFullPacketReceived(whole->data(), static_cast<unsigned int>(whole->size()));
}

VDIFrameworkCommon::MemoryBlock Packetization::TakeMemory() {
    return m_delivered ? m_delivered->takeMemory() : VDIFrameworkCommon::MemoryBlock();
}

}  // namespace NorvoVirtualChannel
