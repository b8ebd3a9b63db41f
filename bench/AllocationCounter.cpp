#include "AllocationCounter.h"

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace bench {

namespace {

std::atomic<bool> counting{false};
std::atomic<std::uint64_t> allocations{0};
std::atomic<std::uint64_t> allocatedBytes{0};

}  // namespace

AllocationCounter::AllocationCounter() {
    allocations = 0;
    allocatedBytes = 0;
    counting = true;
}

AllocationCounter::~AllocationCounter() { counting = false; }

AllocationCounter::Count AllocationCounter::read() const {
    return {allocations.load(), allocatedBytes.load()};
}

static void* allocate(std::size_t size, std::size_t alignment) {
    if (counting.load(std::memory_order_relaxed)) {
        allocations.fetch_add(1, std::memory_order_relaxed);
        allocatedBytes.fetch_add(size, std::memory_order_relaxed);
    }
    void* memory = alignment > alignof(std::max_align_t)
                       ? std::aligned_alloc(alignment, (size + alignment - 1) & ~(alignment - 1))
                       : std::malloc(size ? size : 1);
    if (!memory) throw std::bad_alloc();
    return memory;
}

}  // namespace bench

void* operator new(std::size_t size) { return bench::allocate(size, 1); }
void* operator new[](std::size_t size) { return bench::allocate(size, 1); }
void* operator new(std::size_t size, std::align_val_t alignment) {
    return bench::allocate(size, static_cast<std::size_t>(alignment));
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
    return bench::allocate(size, static_cast<std::size_t>(alignment));
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete(void* memory, std::align_val_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::align_val_t) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t, std::align_val_t) noexcept { std::free(memory); }
