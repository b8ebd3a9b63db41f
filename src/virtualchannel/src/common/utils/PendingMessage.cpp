#include "PendingMessage.h"

#include <algorithm>
#include <new>

#include "Log.h"

namespace NorvoVirtualChannel {

using VDIFrameworkCommon::MemoryBlock;

namespace {

constexpr std::size_t kLargestKeptBlock = 128 * 1024;
constexpr std::size_t kMostKeptPieces = 4096;
constexpr std::int64_t kGrowthFactor = 4;
constexpr std::int64_t kLeast = 1;

}  // namespace

void PendingMessage::start(std::int32_t id, std::uint32_t total, bool mayBeginLarge) {
    m_id = id;
    m_arrived = 0;
    m_announced = 0;
    m_total = total;
    m_order = Order::Unknown;
    m_mayBeginLarge = mayBeginLarge;
    m_lost = false;
    m_pieces.clear();
    m_origin = m_begin = m_end = 0;
}

void PendingMessage::add(const Header& header, const std::byte* payload) {
    if (++m_arrived == 1) m_announced = std::int64_t{header.messageSize} - kPacketHeaderSize;
    noteSize(header);
    if (m_lost) return;
    m_order = orderWith(header.sequence, payload != nullptr);
    // The first packet shows in which order the others will most likely come.
    const bool inFront = m_order == Order::Falling ||
                         (m_order == Order::Unknown && sequenceBefore(1, header.sequence));
    if (payload && !makeRoom(header, inFront)) return lose();
    Piece piece{header.sequence, header.payloadSize, kMissing};
    if (payload) piece.position = inFront ? m_begin - piece.size : m_end;
    try {
        m_pieces.push_back(piece);
    } catch (const std::bad_alloc&) {
        return lose();
    }
    if (!payload) return;
    (inFront ? m_begin : m_end) += inFront ? -std::int64_t{piece.size} : std::int64_t{piece.size};
    if (piece.size > 0) std::memcpy(at(piece.position), payload, piece.size);
}

// An incomplete message must not pass for a whole one.
void PendingMessage::lose() {
    m_lost = true;
    m_block = {};
    m_pieces = {};
    NORVO_LOG_SUMMED_UP(Error, "No memory for a packet; its message is lost, ID: ", m_id);
}

bool PendingMessage::grow(const Header& header, bool inFront) {
    const std::int64_t used = m_end - m_begin;
    const std::int64_t needed = used + header.payloadSize;
    const std::int64_t plenty = kGrowthFactor * needed;
    const std::int64_t capacity = m_announced >= needed ? std::min(plenty, m_announced) : plenty;
    const std::int64_t wanted = m_mayBeginLarge ? std::max(capacity, m_announced) : capacity;
    MemoryBlock grown = MemoryBlock::allocate(static_cast<std::size_t>(std::max(capacity, kLeast)),
                                              static_cast<std::size_t>(std::max(wanted, kLeast)));
    if (!grown) return false;
    const std::int64_t start = inFront ? static_cast<std::int64_t>(grown.capacity()) - used : 0;
    if (used > 0) std::memcpy(grown.data() + start, at(m_begin), static_cast<std::size_t>(used));
    m_block = std::move(grown);
    m_origin = start - m_begin;
    return true;
}

std::optional<std::span<const std::byte>> PendingMessage::join() {
    const std::int64_t size = static_cast<std::int32_t>(m_messageSize - kPacketHeaderSize);
    if (m_lost) {
        NORVO_LOG_SUMMED_UP(Error, "No memory for a message, size: ", size);
        return std::nullopt;
    }
    if (m_order == Order::Mixed) sortPieces();
    const std::int64_t carried = measure(size);
    if (carried == kTooMuch) {
        NORVO_LOG_SUMMED_UP(Warning, "The total size of the segment exceeds the buffer size!");
        return std::nullopt;
    }
    const std::int64_t gap = size - carried;
    const bool inPlace =
        m_order != Order::Mixed && m_block && capacity() - (m_origin + m_end) >= gap;
    if (inPlace && gap > 0) {
        std::memset(at(m_end), 0, static_cast<std::size_t>(gap));
    } else if (!inPlace && !gather(carried, size)) {
        NORVO_LOG_SUMMED_UP(Error, "No memory for a message, size: ", size);
        return std::nullopt;
    }
    return std::span<const std::byte>(at(m_begin), static_cast<std::size_t>(size));
}

// Of two packets with the same sequence, the later one comes first.
void PendingMessage::sortPieces() {
    std::reverse(m_pieces.begin(), m_pieces.end());
    std::stable_sort(m_pieces.begin(), m_pieces.end(), [](const Piece& a, const Piece& b) {
        return sequenceBefore(a.sequence, b.sequence);
    });
}

std::int64_t PendingMessage::measure(std::int64_t limit) const {
    std::int64_t carried = m_end - m_begin;
    if (m_order == Order::Mixed) {
        carried = 0;
        for (const Piece& piece : m_pieces) {
            if (piece.position == kMissing) {
                NORVO_LOG_SUMMED_UP(Warning, "The payload is NULL.");
                NORVO_LOG_SUMMED_UP(Warning, "Unable to copy the data to the buffer.");
            } else if ((carried += piece.size) > limit) {
                break;
            }
        }
    }
    return carried <= limit ? carried : kTooMuch;
}

bool PendingMessage::gather(std::int64_t carried, std::int64_t size) {
    const auto bytes = static_cast<std::size_t>(std::max(size, kLeast));
    MemoryBlock whole =
        size > carried ? MemoryBlock::zeroed(bytes) : MemoryBlock::allocate(bytes, bytes);
    if (!whole) return false;
    std::byte* next = whole.data();
    if (m_order == Order::Falling) std::reverse(m_pieces.begin(), m_pieces.end());
    for (const Piece& piece : m_pieces) {
        if (piece.position == kMissing || piece.size == 0) continue;
        std::memcpy(next, at(piece.position), piece.size);
        next += piece.size;
    }
    m_block = std::move(whole);
    m_origin = m_begin = 0;
    m_end = carried;
    return true;
}

void PendingMessage::freeLargeMemory() {
    if (m_block.capacity() > kLargestKeptBlock) m_block = {};
    if (m_pieces.capacity() > kMostKeptPieces) m_pieces = {};
}

}  // namespace NorvoVirtualChannel
