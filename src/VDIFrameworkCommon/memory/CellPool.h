// Heap memory for small objects that one thread makes and another one destroys.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <new>

namespace VDIFrameworkCommon {

// Keeps up to `Count` cells of `Size` bytes for use again: an allocator that gets memory back on
// another thread than it gave it to takes a lock, over which the two threads then quarrel. What is
// kept stays for the life of the process. `Count` is a power of two. Thread-safe, without a lock.
template <std::size_t Size, std::size_t Count>
class CellPool {
public:
    static constexpr std::size_t kCellSize = Size;

    constexpr CellPool() = default;
    CellPool(const CellPool&) = delete;
    CellPool& operator=(const CellPool&) = delete;

    // `Size` bytes, aligned for anything, of any content; null when there is no memory.
    void* allocate() noexcept {
        void* const kept = take();
        return kept ? kept : ::operator new(Size, std::nothrow);
    }

    // Takes back what `allocate` gave; null is nothing.
    void release(void* cell) noexcept {
        if (cell && !keep(cell)) ::operator delete(cell);
    }

private:
    static_assert(Count > 0 && (Count & (Count - 1)) == 0);

    // A ring, whose positions count on for ever. A slot's turn says which lap may use it next: it
    // may be filled in the lap that begins at position p when its turn is p, and emptied at p + 1,
    // after which it is the turn of the next lap.
    struct Slot {
        std::atomic<std::size_t> turn{0};
        void* cell = nullptr;
    };

    static std::size_t lapOf(std::size_t position) { return position - position % Count; }

    // The next slot whose turn is `offset` past its lap, which is then the caller's own, with its
    // position; null when it is not that far.
    Slot* claim(std::atomic<std::size_t>& next, std::size_t offset, std::size_t& position) {
        position = next.load(std::memory_order_relaxed);
        for (;;) {
            Slot& slot = m_slots[position % Count];
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
        slot->turn.store(lapOf(position) + Count, std::memory_order_release);
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
    alignas(kCacheLine) std::array<Slot, Count> m_slots{};
};

}  // namespace VDIFrameworkCommon
