// Heap memory for small objects that one thread creates and another destroys.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <new>
#include <thread>

namespace VDIFrameworkCommon {

// Has `Count` cells of `Size` bytes, and takes more from the heap when they run out. An allocator
// that gets memory back on another thread than it gave it to takes a lock, and the two threads
// contend on it. The cells are contiguous, not scattered among larger heap blocks, which would keep
// the heap from returning memory to the system. `Count` is a power of two. Thread-safe, without a
// lock.
template <std::size_t Size, std::size_t Count>
class CellPool {
public:
    static constexpr std::size_t kCellSize = Size;

    constexpr CellPool() = default;
    CellPool(const CellPool&) = delete;
    CellPool& operator=(const CellPool&) = delete;

    // `Size` uninitialised bytes, aligned for any type; null when out of memory.
    void* allocate() noexcept {
        if (void* const used = take()) return used;
        if (m_firstUnused.load(std::memory_order_relaxed) < Count) {
            const std::size_t cell = m_firstUnused.fetch_add(1, std::memory_order_relaxed);
            if (cell < Count) return m_cells[cell].bytes;
        }
        return ::operator new(Size, std::nothrow);
    }

    // Takes back what `allocate` returned; null is ignored.
    void release(void* cell) noexcept {
        if (!isOwn(cell)) return ::operator delete(cell);
        // There is room for all, but another thread may not have left the slot yet.
        while (!keep(cell)) std::this_thread::yield();
    }

private:
    static_assert(Count > 0 && (Count & (Count - 1)) == 0);

    // Twice the number of cells: a slow thread is seldom met.
    static constexpr std::size_t kSlots = 2 * Count;

    // A ring with ever-growing positions. A slot's turn says which lap may use it next: it may be
    // filled in the lap that begins at position p when its turn is p, and emptied at p + 1, after
    // which it is the turn of the next lap.
    struct Slot {
        std::atomic<std::size_t> turn{0};
        void* cell = nullptr;
    };

    static std::size_t lapOf(std::size_t position) { return position - position % kSlots; }

    bool isOwn(const void* cell) const {
        const std::less<> before;
        const void* const first = m_cells.data();
        const void* const end = m_cells.data() + Count;
        return !before(cell, first) && before(cell, end);
    }

    // Claims the next slot whose turn is `offset` past its lap, and returns it with its position;
    // null when no slot is that far.
    Slot* claim(std::atomic<std::size_t>& next, std::size_t offset, std::size_t& position) {
        position = next.load(std::memory_order_relaxed);
        for (;;) {
            Slot& slot = m_slots[position % kSlots];
            const std::size_t turn = slot.turn.load(std::memory_order_acquire);
            const auto ahead = static_cast<std::intptr_t>(turn - (lapOf(position) + offset));
            if (ahead < 0) return nullptr;
            if (ahead > 0) {
                position = next.load(std::memory_order_relaxed);
            } else if (next.compare_exchange_weak(position, position + 1,
                                                  std::memory_order_relaxed)) {
                return &slot;
            }
        }
    }

    void* take() {
        std::size_t position = 0;
        Slot* const slot = claim(m_nextToEmpty, 1, position);
        if (!slot) return nullptr;
        void* const cell = slot->cell;
        slot->turn.store(lapOf(position) + kSlots, std::memory_order_release);
        return cell;
    }

    bool keep(void* cell) {
        std::size_t position = 0;
        Slot* const slot = claim(m_nextToFill, 0, position);
        if (!slot) return false;
        slot->cell = cell;
        slot->turn.store(lapOf(position) + 1, std::memory_order_release);
        return true;
    }

    static constexpr std::size_t kCacheLine = 64;

    alignas(kCacheLine) std::atomic<std::size_t> m_nextToFill{0};
    alignas(kCacheLine) std::atomic<std::size_t> m_nextToEmpty{0};
    alignas(kCacheLine) std::array<Slot, kSlots> m_slots{};

    struct alignas(std::max_align_t) Cell {
        std::byte bytes[Size];
    };
    std::atomic<std::size_t> m_firstUnused{0};
    std::array<Cell, Count> m_cells{};
};

}  // namespace VDIFrameworkCommon
