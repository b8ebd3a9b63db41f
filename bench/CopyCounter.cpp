#include "CopyCounter.h"

#include <atomic>
#include <cstddef>

namespace bench {

namespace {

std::atomic<bool> counting{false};
std::atomic<std::uint64_t> copiedBytes{0};

void count(std::size_t size) {
    if (counting.load(std::memory_order_relaxed)) {
        copiedBytes.fetch_add(size, std::memory_order_relaxed);
    }
}

}  // namespace

CopyCounter::CopyCounter() {
    copiedBytes = 0;
    counting = true;
}

CopyCounter::~CopyCounter() { counting = false; }

std::uint64_t CopyCounter::read() const { return copiedBytes.load(); }

}  // namespace bench

// The linker's names for the replacement functions and for the replaced ones.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
extern "C" {
void* __real_memcpy(void* to, const void* from, std::size_t size);
void* __real_memmove(void* to, const void* from, std::size_t size);

void* __wrap_memcpy(void* to, const void* from, std::size_t size) {
    bench::count(size);
    return __real_memcpy(to, from, size);
}
void* __wrap_memmove(void* to, const void* from, std::size_t size) {
    bench::count(size);
    return __real_memmove(to, from, size);
}
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
