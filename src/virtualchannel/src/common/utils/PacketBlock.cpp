#include "PacketBlock.h"

#include "CellPool.h"

namespace NorvoVirtualChannel {

using VDIFrameworkCommon::MemoryBlock;

namespace {

// Most messages fit in a cell.
using Cells = VDIFrameworkCommon::CellPool<320, 1024>;
constinit Cells g_cells;

}  // namespace

PacketBlock* PacketBlock::allocate(std::uint32_t packets, std::size_t wireSize) {
    const std::size_t size = sizeof(PacketBlock) + packets * kPlace + wireSize;
    MemoryBlock memory;
    if (size > Cells::kCellSize) memory = MemoryBlock::allocate(size, size);
    void* const place = size > Cells::kCellSize ? memory.data() : g_cells.allocate();
    return place ? ::new (place) PacketBlock(std::move(memory), packets) : nullptr;
}

void PacketBlock::free() {
    // The memory of a block that is not in a cell ends here.
    const MemoryBlock memory = std::move(m_memory);
    this->~PacketBlock();
    if (!memory) g_cells.release(this);
}

}  // namespace NorvoVirtualChannel
