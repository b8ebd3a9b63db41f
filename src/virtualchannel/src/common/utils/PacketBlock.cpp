#include "PacketBlock.h"

#include "SpareBlock.h"

namespace NorvoVirtualChannel {

namespace {

VDIFrameworkCommon::SpareBlock g_memory;

}  // namespace

PacketBlock* PacketBlock::allocate(std::uint32_t packets, std::size_t wireSize) {
    std::size_t capacity = 0;
    void* const memory =
        g_memory.allocate(sizeof(PacketBlock) + packets * sizeof(Packet) + wireSize, capacity);
    if (!memory) return nullptr;
    auto* const block = ::new (memory) PacketBlock(capacity);
    block->m_alive.store(packets, std::memory_order_relaxed);
    block->m_count = packets;
    return block;
}

void PacketBlock::free() { g_memory.release(this, m_capacity); }

}  // namespace NorvoVirtualChannel
