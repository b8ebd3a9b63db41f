// Heap memory for blocks that are allocated and freed all the time, one after another.
#pragma once

#include <atomic>
#include <cstddef>
#include <new>

namespace VDIFrameworkCommon {

// Keeps the last released block for the next allocation that it fits: for large blocks an allocator
// asks the system for memory, and the system for pages, each time. Holds at most one block, of at
// most `kLargest` bytes, for the life of the process. Thread-safe, without a lock.
class SpareBlock {
public:
    static constexpr std::size_t kLargest = 2 * 1024 * 1024;

    // At least `size` (not 0) uninitialised bytes, aligned for any type; null when out of memory.
    // `capacity` is set to their number: no more than about eight times `size`, so that long-lived
    // small blocks do not hold much.
    void* allocate(std::size_t size, std::size_t& capacity) noexcept {
        if (size >= kSmallest && size <= kLargest)
            if (void* const spare = take(size, capacity)) return spare;
        capacity = size;
        return ::operator new(capacity, std::nothrow);
    }

    // Takes back what `allocate` returned, with its capacity.
    void release(void* block, std::size_t capacity) noexcept {
        if (capacity < kSmallest || capacity > kLargest || !keep(::new (block) Free{capacity}))
            ::operator delete(block);
    }

private:
    // The allocator is faster for smaller blocks.
    static constexpr std::size_t kSmallest = 1000;
    static constexpr std::size_t kMostWaste = 16 * 1024;

    struct Free {
        std::size_t capacity;
    };

    void* take(std::size_t size, std::size_t& capacity) noexcept {
        Free* const spare = m_spare.exchange(nullptr, std::memory_order_acquire);
        if (!spare) return nullptr;
        capacity = spare->capacity;
        if (capacity >= size && capacity <= 8 * size + kMostWaste) return spare;
        // One that is too small is freed in favour of the new one.
        if (capacity < size || !keep(spare)) ::operator delete(spare);
        return nullptr;
    }

    bool keep(Free* block) noexcept {
        Free* none = nullptr;
        return m_spare.compare_exchange_strong(none, block, std::memory_order_release,
                                               std::memory_order_relaxed);
    }

    std::atomic<Free*> m_spare{nullptr};
};

}  // namespace VDIFrameworkCommon
