#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

#include "MemoryBlock.h"
#include "Packets.h"

namespace NorvoVirtualChannel {

// The memory of the packets that one message was cut into: the packets themselves, each with its
// room, then their bytes. It is freed when the last packet has been released.
class alignas(std::max_align_t) PacketBlock {
public:
    // Room for `packets` packets, all counted as alive, and `wireSize` bytes in total. Null when
    // there is no memory.
    static PacketBlock* allocate(std::uint32_t packets, std::size_t wireSize);

    // Where to build packet `index` (from 0), and where the bytes begin.
    void* place(std::uint32_t index) { return packets() + index * kPlace; }
    std::byte* wire() { return packets() + m_count * kPlace; }

    // Releases one packet; the block may be freed by that. Any thread.
    void release();

private:
    static constexpr std::size_t kPlace = sizeof(Packet) + Packet::kRoom;

    PacketBlock(VDIFrameworkCommon::MemoryBlock memory, std::uint32_t packets)
        : m_memory(std::move(memory)), m_alive(packets), m_count(packets) {}
    void free();
    std::byte* packets() { return reinterpret_cast<std::byte*>(this + 1); }

    VDIFrameworkCommon::MemoryBlock m_memory;  // which holds this object; empty in a cell
    std::atomic<std::uint32_t> m_alive;
    const std::uint32_t m_count;
};
static_assert(sizeof(Packet) % alignof(std::max_align_t) == 0);

inline void PacketBlock::release() {
    // The last release needs no read-modify-write: nobody else can change the count.
    if (m_alive.load(std::memory_order_acquire) == 1 ||
        m_alive.fetch_sub(1, std::memory_order_acq_rel) == 1)
        free();
}

// Copying a header that has just been written field by field is slow: the load waits for the stores
// of the fields. So copy one that was written earlier.
inline Packet::Packet(const Header& common, std::uint32_t sequence, std::uint32_t payloadSize,
                      PacketBlock& block, std::byte* wire)
    : m_header(common), m_payload(wire + kPacketHeaderSize), m_block(&block) {
    m_header.sequence = sequence;
    m_header.payloadSize = payloadSize;
    std::memcpy(wire, &common, kPacketHeaderSize);
    std::memcpy(wire + offsetof(Header, sequence), &sequence, sizeof sequence);
    std::memcpy(wire + offsetof(Header, payloadSize), &payloadSize, sizeof payloadSize);
}

}  // namespace NorvoVirtualChannel
