#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "MemoryBlock.h"
#include "PacketHeader.h"

namespace NorvoVirtualChannel {

// Sequences are compared as signed numbers.
constexpr bool sequenceBefore(std::uint32_t a, std::uint32_t b) {
    return static_cast<std::int32_t>(a) < static_cast<std::int32_t>(b);
}

// The packets of one split message that have arrived so far. Not synchronised.
//
// Payloads go into one growing block. While packets come in falling order, each is put in front of
// the earlier ones, otherwise behind them. So packets in rising or falling order end up in order,
// and the message is delivered from the block without another copy. A block is at most eight times
// as large as what has arrived, unless the message may begin in a large one.
class PendingMessage {
public:
    // Makes this an empty message `id` of `total` packets; keeps its memory. If it `mayBeginLarge`,
    // a kept block with room for all that it announces may be used from the first packet on.
    void start(std::int32_t id, std::uint32_t total, bool mayBeginLarge);
    // Counts a packet and copies its payload, whose size is in its header. A null payload leaves a
    // gap. When there is no memory, the whole message is lost.
    void add(const Header& header, const std::byte* payload);

    std::int32_t id() const { return m_id; }
    std::uint32_t arrived() const { return m_arrived; }
    std::uint32_t total() const { return m_total; }
    bool isComplete() const { return m_arrived == m_total; }
    std::size_t packetCount() const { return m_pieces.size(); }

    // The message: payloads in sequence order, then zeros up to the size that the first of them
    // announces. Valid until another operation is called. Nothing, after a log line, when they
    // exceed that size or there is no memory. Call it once.
    std::optional<std::span<const std::byte>> join();

    // The memory that join() returned the message in: the bytes stay where they are. Empty when the
    // message has none.
    VDIFrameworkCommon::MemoryBlock takeMemory() { return std::move(m_block); }
    // Keeps only so much memory as any next message may have.
    void freeLargeMemory();

private:
    struct Piece {
        std::uint32_t sequence;
        std::uint32_t size;
        std::int64_t position;  // relative to the start of the first piece; kMissing without bytes
    };
    static constexpr std::int64_t kTooMuch = -1;
    static constexpr std::int64_t kMissing = std::numeric_limits<std::int64_t>::min();
    // The order of the sequences so far. In rising and falling order every piece has its bytes, so
    // the bytes are in order too.
    enum class Order { Unknown, Rising, Falling, Mixed };

    Order orderWith(std::uint32_t sequence, bool hasBytes) const;
    bool makeRoom(const Header& header, bool inFront);
    bool grow(const Header& header, bool inFront);
    void lose();
    std::int64_t capacity() const { return static_cast<std::int64_t>(m_block.capacity()); }
    std::byte* at(std::int64_t position) const { return m_block.data() + (m_origin + position); }
    void noteSize(const Header& header);
    // How many payload bytes have arrived; `kTooMuch` when more than `limit`.
    std::int64_t measure(std::int64_t limit) const;
    void sortPieces();
    bool gather(std::int64_t carried, std::int64_t size);

    std::int32_t m_id = 0;
    std::uint32_t m_arrived = 0;
    std::uint32_t m_total = 0;
    std::uint32_t m_lowestSequence = 0;
    std::uint32_t m_messageSize = 0;  // from the packet with the lowest sequence
    // Payload bytes that the first packet announced. What later ones say must not size the block:
    // growing with each packet, it would be copied with each packet.
    std::int64_t m_announced = 0;
    Order m_order = Order::Unknown;
    bool m_mayBeginLarge = false;
    bool m_lost = false;          // there was no memory for a packet
    std::vector<Piece> m_pieces;  // in order of arrival until they are joined

    // The used part of the block is [m_begin, m_end), as positions; position 0 is m_origin bytes
    // behind its start.
    VDIFrameworkCommon::MemoryBlock m_block;
    std::int64_t m_origin = 0;
    std::int64_t m_begin = 0;
    std::int64_t m_end = 0;
};

inline PendingMessage::Order PendingMessage::orderWith(std::uint32_t sequence,
                                                       bool hasBytes) const {
    if (!hasBytes || m_order == Order::Mixed) return Order::Mixed;
    if (m_pieces.empty()) return Order::Unknown;
    const std::uint32_t last = m_pieces.back().sequence;
    if (last == sequence) return Order::Mixed;
    const Order step = sequenceBefore(last, sequence) ? Order::Rising : Order::Falling;
    return m_order == Order::Unknown || m_order == step ? step : Order::Mixed;
}

inline bool PendingMessage::makeRoom(const Header& header, bool inFront) {
    if (!m_block) return grow(header, inFront);
    if (m_begin == m_end) m_origin = (inFront ? capacity() : 0) - m_begin;
    const std::int64_t room = inFront ? m_origin + m_begin : capacity() - (m_origin + m_end);
    return room >= header.payloadSize || grow(header, inFront);
}

// Of two packets with the same sequence, the later one counts.
inline void PendingMessage::noteSize(const Header& header) {
    if (m_arrived > 1 && sequenceBefore(m_lowestSequence, header.sequence)) return;
    m_lowestSequence = header.sequence;
    m_messageSize = header.messageSize;
}

}  // namespace NorvoVirtualChannel
