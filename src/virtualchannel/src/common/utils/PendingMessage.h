#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <span>
#include <vector>

namespace NorvoVirtualChannel {

class Packet;

// The packets of one split message that have arrived so far. Not synchronised.
//
// Payloads go into one growing block: a packet that follows the one before it in the message is put
// behind what is there, one that precedes it in front. Packets that come in rising or in falling
// order so lie in order at the end, and the message is delivered from there without another copy.
// The block is never larger than four times what has arrived, or `kFirstCapacity` when that is
// more, or what an earlier message left.
class PendingMessage {
public:
    static constexpr std::size_t kFirstCapacity = 16 * 1024;

    // Makes this an empty message of `total` packets, keeping the memory it has.
    void start(std::uint32_t total);
    // Counts the packet and copies its payload. One without a payload, or one that there is no
    // memory for, leaves a gap.
    void add(const Packet& packet);

    std::uint32_t arrived() const { return m_arrived; }
    std::uint32_t total() const { return m_total; }
    bool isComplete() const { return m_arrived == m_total; }
    std::size_t packetCount() const { return m_pieces.size(); }

    // The message: payloads in the order of their sequences, then zeros up to the size that the
    // first of them announces. Valid until the next call of another operation. Nothing, after a log
    // line, when they exceed that size or when there is no memory for it. To be called once, and
    // with at least one packet.
    std::optional<std::span<const std::byte>> join();

    // Whether the memory kept is little enough to be held for the next message.
    bool isWorthKeeping() const;

private:
    struct Piece {
        std::uint32_t sequence;
        std::uint32_t messageSize;
        std::uint32_t size;
        bool stored;
        std::int64_t position;  // relative to where the first piece begins
    };
    struct Free {
        void operator()(std::byte* block) const { std::free(block); }
    };
    using Block = std::unique_ptr<std::byte[], Free>;

    bool makeRoom(std::uint32_t size, bool inFront, std::uint32_t messageSize);
    std::byte* at(std::int64_t position) const;
    void sortPieces();
    // How many bytes the pieces hold in all; nothing when that exceeds `limit`.
    std::optional<std::int64_t> measure(std::int64_t limit) const;
    bool lieInOrder() const;
    bool gather(std::int64_t carried, std::int64_t size);

    std::uint32_t m_arrived = 0;
    std::uint32_t m_total = 0;
    std::vector<Piece> m_pieces;  // in order of arrival until they are joined

    // What is used of the block is [m_begin, m_end), as positions; position 0 is m_origin bytes
    // behind its start.
    Block m_block;
    std::int64_t m_capacity = 0;
    std::int64_t m_origin = 0;
    std::int64_t m_begin = 0;
    std::int64_t m_end = 0;
};

}  // namespace NorvoVirtualChannel
