#include <algorithm>
#include <limits>
#include <new>
#include <utility>

#include "Log.h"
#include "PacketBlock.h"
#include "Packets.h"

namespace NorvoVirtualChannel {

using VDIFrameworkCommon::SplitBytes;

namespace {

// Packets that share one block of memory, which is freed with the last of them.
constexpr std::uint32_t kPacketsPerBlock = 128;

// 0 when there is no room for payload.
std::uint32_t payloadMaxOf(int maxPacketSize) {
    return static_cast<std::uint32_t>(
        std::max(maxPacketSize - static_cast<int>(kPacketHeaderSize), 0));
}

// 0 when the message cannot be cut.
std::uint32_t packetsNeeded(const SplitBytes& message, int maxPacketSize) {
    constexpr auto largest =
        static_cast<unsigned int>(std::numeric_limits<std::int32_t>::max()) - kPacketHeaderSize;
    if (message.size() > largest || (!message.first.data() && !message.first.empty())) return 0;
    const auto length = static_cast<std::uint32_t>(message.size());
    if (maxPacketSize < static_cast<int>(kPacketHeaderSize)) return 0;
    if (length == 0) return 1;
    const std::uint32_t payloadMax = payloadMaxOf(maxPacketSize);
    return payloadMax == 0 ? 0 : (length - 1) / payloadMax + 1;
}

}  // namespace

MessageFragmenter::MessageFragmenter(const void* data, unsigned int length, int maxPacketSize)
    : MessageFragmenter({{static_cast<const std::byte*>(data), length}, {}}, maxPacketSize) {}

MessageFragmenter::MessageFragmenter(const SplitBytes& message, int maxPacketSize)
    : m_message(message),
      m_length(static_cast<std::uint32_t>(message.size())),
      m_payloadMax(payloadMaxOf(maxPacketSize)),
      m_total(packetsNeeded(message, maxPacketSize)),
      m_id(UIDGenerator::GetInstance()->GetNextUID()),
      m_remaining(m_total) {
    NORVO_LOG(Trace, "Packetizing ", message.size(), " bytes of data.");
    NORVO_LOG(Trace, "Packets needed: ", m_total);
    NORVO_LOG(Trace, "send message id: ", m_id, ", numPackets: ", m_total);
    if (m_total == 0) NORVO_LOG(Error, "Unable to packetize a message, length: ", message.size());
}

MessageFragmenter::~MessageFragmenter() {
    for (; m_built < m_places; ++m_built) m_block->release();
}

void MessageFragmenter::beginBlock() {
    const std::uint32_t places = std::min(m_remaining, kPacketsPerBlock);
    const std::size_t largest = std::min<std::size_t>(m_payloadMax, m_length) + kPacketHeaderSize;
    m_block = PacketBlock::allocate(places, places * largest);
    if (!m_block) throw std::bad_alloc();
    m_wire = m_block->wire();
    m_places = places;
    m_built = 0;
}

std::unique_ptr<Packet> MessageFragmenter::next() {
    if (m_remaining == 0) return nullptr;
    if (m_built == m_places) beginBlock();
    const std::uint32_t sequence = m_remaining--;
    const std::uint32_t offset = (sequence - 1) * m_payloadMax;
    const std::uint32_t size = std::min(m_payloadMax, m_length - offset);
    const Header common{
        .totalPackets = m_total, .packetId = m_id, .messageSize = m_length + kPacketHeaderSize};
    NORVO_LOG(Trace, "Freeing temporary memory.");
    if (m_remaining == 0) NORVO_LOG(Trace, "Returning the dequeue.");
    std::byte* const wire = std::exchange(m_wire, m_wire + kPacketHeaderSize + size);
    m_message.copy(offset, size, wire + kPacketHeaderSize);
    return std::unique_ptr<Packet>(::new (m_block->place(m_built++))
                                       Packet(common, sequence, size, *m_block, wire));
}

}  // namespace NorvoVirtualChannel
