#include "PendingMessage.h"

#include <algorithm>
#include <cstring>

#include "Log.h"
#include "Packets.h"

NORVO_LOG_SOURCE("src/virtualchannel/src/common/utils/Packets")

namespace NorvoVirtualChannel {

namespace {

constexpr std::int64_t kLargestKeptBlock = 2 * 1024 * 1024;
constexpr std::size_t kMostKeptPieces = 4096;
constexpr std::int64_t kGrowthFactor = 4;

bool before(std::uint32_t a, std::uint32_t b) {
    return static_cast<std::int32_t>(a) < static_cast<std::int32_t>(b);
}

}  // namespace

void PendingMessage::start(std::uint32_t total) {
    m_arrived = 0;
    m_total = total;
    m_pieces.clear();
    m_origin = m_begin = m_end = 0;
}

void PendingMessage::add(const Packet& packet) {
    ++m_arrived;
    Piece piece{packet.GetPacketSequence(), packet.GetMessageSize(), packet.GetPayloadSize(), false,
                m_end};
    // The first packet tells the direction that the others will most likely come from.
    const bool inFront =
        m_pieces.empty() ? piece.sequence > 1 : before(piece.sequence, m_pieces.back().sequence);
    if (packet.isPacketValid() && makeRoom(piece.size, inFront, piece.messageSize)) {
        piece.stored = true;
        piece.position = inFront ? m_begin -= piece.size : m_end;
        if (!inFront) m_end += piece.size;
        if (piece.size > 0) std::memcpy(at(piece.position), packet.Payload().data(), piece.size);
    }
    m_pieces.push_back(piece);
}

std::byte* PendingMessage::at(std::int64_t position) const {
    return m_block.get() + (m_origin + position);
}

bool PendingMessage::makeRoom(std::uint32_t size, bool inFront, std::uint32_t messageSize) {
    const std::int64_t used = m_end - m_begin;
    const std::int64_t needed = used + size;
    if (used == 0 && m_block && needed <= m_capacity) {
        m_begin = m_end = 0;
        m_origin = inFront ? m_capacity : 0;
        return true;
    }
    const std::int64_t room = inFront ? m_origin + m_begin : m_capacity - (m_origin + m_end);
    if (m_block && room >= size) return true;

    const std::int64_t plenty =
        std::max(kGrowthFactor * needed, static_cast<std::int64_t>(kFirstCapacity));
    const std::int64_t announced = std::int64_t{messageSize} - kPacketHeaderSize;
    const std::int64_t capacity = std::max({std::min(plenty, announced), needed, std::int64_t{1}});
    Block grown(static_cast<std::byte*>(std::malloc(static_cast<std::size_t>(capacity))));
    if (!grown) {
        NORVO_LOG(Error, "No memory for a packet, payload size: ", size);
        return false;
    }
    const std::int64_t start = inFront ? capacity - used : 0;
    if (used > 0) std::memcpy(grown.get() + start, at(m_begin), static_cast<std::size_t>(used));
    m_block = std::move(grown);
    m_capacity = capacity;
    m_origin = start - m_begin;
    return true;
}

std::optional<std::span<const std::byte>> PendingMessage::join() {
    sortPieces();
    const std::int64_t size =
        static_cast<std::int32_t>(m_pieces.front().messageSize - kPacketHeaderSize);
    const auto carried = measure(size);
    if (!carried) {
        NORVO_LOG(Warning, "The total size of the segment exceeds the buffer size!");
        return std::nullopt;
    }
    const bool roomForGap = m_block && m_capacity - (m_origin + m_end) >= size - *carried;
    if (lieInOrder() && roomForGap) {
        if (size > *carried) std::memset(at(m_end), 0, static_cast<std::size_t>(size - *carried));
    } else if (!gather(*carried, size)) {
        NORVO_LOG(Error, "No memory for a message, size: ", size);
        return std::nullopt;
    }
    return std::span<const std::byte>(at(m_begin), static_cast<std::size_t>(size));
}

// Of packets with the same sequence the later one comes first.
void PendingMessage::sortPieces() {
    const auto inOrder = [](const Piece& a, const Piece& b) {
        return before(a.sequence, b.sequence);
    };
    const auto notRising = [&](const Piece& a, const Piece& b) { return !inOrder(a, b); };
    if (std::adjacent_find(m_pieces.begin(), m_pieces.end(), notRising) == m_pieces.end()) return;
    std::reverse(m_pieces.begin(), m_pieces.end());
    if (!std::is_sorted(m_pieces.begin(), m_pieces.end(), inOrder))
        std::stable_sort(m_pieces.begin(), m_pieces.end(), inOrder);
}

std::optional<std::int64_t> PendingMessage::measure(std::int64_t limit) const {
    std::int64_t carried = 0;
    for (const Piece& piece : m_pieces) {
        if (!piece.stored) {
            NORVO_LOG(Warning, "The payload is NULL.");
            NORVO_LOG(Warning, "Unable to copy the data to the buffer.");
            continue;
        }
        carried += piece.size;
        if (carried > limit) return std::nullopt;
    }
    if (limit < 0) return std::nullopt;
    return carried;
}

bool PendingMessage::lieInOrder() const {
    std::int64_t expected = m_begin;
    for (const Piece& piece : m_pieces) {
        if (!piece.stored) continue;
        if (piece.position != expected) return false;
        expected += piece.size;
    }
    return true;
}

bool PendingMessage::gather(std::int64_t carried, std::int64_t size) {
    // Memory that the system hands out zeroed costs nothing until it is touched, however large an
    // announced size may be.
    const auto bytes = static_cast<std::size_t>(std::max(size, std::int64_t{1}));
    Block whole(
        static_cast<std::byte*>(size > carried ? std::calloc(bytes, 1) : std::malloc(bytes)));
    if (!whole) return false;
    std::byte* next = whole.get();
    for (const Piece& piece : m_pieces) {
        if (!piece.stored || piece.size == 0) continue;
        std::memcpy(next, at(piece.position), piece.size);
        next += piece.size;
    }
    m_block = std::move(whole);
    m_capacity = size;
    m_origin = m_begin = 0;
    m_end = carried;
    return true;
}

bool PendingMessage::isWorthKeeping() const {
    return m_capacity <= kLargestKeptBlock && m_pieces.capacity() <= kMostKeptPieces;
}

}  // namespace NorvoVirtualChannel
