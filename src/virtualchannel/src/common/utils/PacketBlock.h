#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "Packets.h"

namespace NorvoVirtualChannel {

// The heap block of the packets that one message was cut into: the packets themselves, then their
// bytes. It goes when the last packet has been released.
class PacketBlock {
public:
    // Room for `packets` packets and their `wireSize` bytes in all, every packet counted as alive.
    // Null when there is no memory.
    static PacketBlock* allocate(std::uint32_t packets, std::size_t wireSize);

    // Where packet number `index`, from 0, is to be built, and where the bytes begin.
    void* place(std::uint32_t index) { return packets() + index * sizeof(Packet); }
    std::byte* wire() { return packets() + m_count * sizeof(Packet); }

    // Counts one packet as gone; the block may be gone after that. Any thread.
    void release();

private:
    explicit PacketBlock(std::size_t capacity) : m_capacity(capacity) {}
    void free();
    std::byte* packets() { return reinterpret_cast<std::byte*>(this + 1); }

    const std::size_t m_capacity;  // this object included
    std::atomic<std::uint32_t> m_alive{0};
    std::uint32_t m_count = 0;
};
static_assert(sizeof(PacketBlock) % alignof(Packet) == 0);

inline void PacketBlock::release() {
    // The last one needs no read-modify-write: nobody else is left to change the count.
    if (m_alive.load(std::memory_order_acquire) == 1 ||
        m_alive.fetch_sub(1, std::memory_order_acq_rel) == 1)
        free();
}

// Copying a header that has just been written field by field is slow, as the processor then waits
// for the fields to reach memory. So the copies come from one that has long been there.
inline Packet::Packet(const Header& common, std::uint32_t sequence,
                      std::span<const std::byte> payload, PacketBlock& block, std::byte* wire)
    : m_header(common), m_payload(wire + kPacketHeaderSize), m_block(&block) {
    const auto size = static_cast<std::uint32_t>(payload.size());
    m_header.sequence = sequence;
    m_header.payloadSize = size;
    std::memcpy(wire, &common, kPacketHeaderSize);
    std::memcpy(wire + offsetof(Header, sequence), &sequence, sizeof sequence);
    std::memcpy(wire + offsetof(Header, payloadSize), &size, sizeof size);
    if (size > 0) std::memcpy(wire + kPacketHeaderSize, payload.data(), size);
}

}  // namespace NorvoVirtualChannel
