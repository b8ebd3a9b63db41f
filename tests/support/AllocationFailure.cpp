#include "AllocationFailure.h"

#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

thread_local int t_untilFailure = 0;  // 0: never
thread_local bool t_failed = false;

void* allocate(std::size_t size) noexcept {
    if (t_untilFailure > 0 && --t_untilFailure == 0) {
        t_failed = true;
        return nullptr;
    }
    return std::malloc(size ? size : 1);
}

void* allocateOrThrow(std::size_t size) {
    if (void* const memory = allocate(size)) return memory;
    throw std::bad_alloc();
}

}  // namespace

int testsupport::failEachAllocation(const std::function<void()>& step,
                                    const std::function<void()>& prepare) {
    for (int nth = 1;; ++nth) {
        prepare();
        t_failed = false;
        t_untilFailure = nth;
        step();
        t_untilFailure = 0;
        if (!t_failed) return nth;
    }
}

// All forms but the aligned ones, so that no sanitizer's form frees memory from these.
void* operator new(std::size_t size) { return allocateOrThrow(size); }
void* operator new[](std::size_t size) { return allocateOrThrow(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
void operator delete[](void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
