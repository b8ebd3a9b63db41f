#include "PacketBlock.h"

#include "CellPool.h"
#include "SpareBlock.h"

namespace NorvoVirtualChannel {

namespace {

// Most messages fit in a cell; larger ones come less often.
using Cells = VDIFrameworkCommon::CellPool<320, 1024>;
constinit Cells g_cells;
VDIFrameworkCommon::SpareBlock g_memory;

void* allocateMemory(std::size_t size, std::size_t& capacity) {
    if (size > Cells::kCellSize) return g_memory.allocate(size, capacity);
    capacity = Cells::kCellSize;
    return g_cells.allocate();
}

}  // namespace

PacketBlock* PacketBlock::allocate(std::uint32_t packets, std::size_t wireSize) {
    std::size_t capacity = 0;
    void* const memory =
        allocateMemory(sizeof(PacketBlock) + packets * kPlace + wireSize, capacity);
    if (!memory) return nullptr;
    auto* const block = ::new (memory) PacketBlock(capacity);
    block->m_alive.store(packets, std::memory_order_relaxed);
    block->m_count = packets;
    return block;
}

void PacketBlock::free() {
    if (m_capacity == Cells::kCellSize) {
        g_cells.release(this);
    } else {
        g_memory.release(this, m_capacity);
    }
}

}  // namespace NorvoVirtualChannel
