#include "AllocationFailure.h"

#include <cstddef>
#include <cstdlib>
#include <new>

namespace {
thread_local int t_untilFailure = 0;  // 0: never
thread_local bool t_failed = false;
}  // namespace

namespace testsupport {

AllocationFailure::AllocationFailure(int nth) {
    t_untilFailure = nth;
    t_failed = false;
}

AllocationFailure::~AllocationFailure() { t_untilFailure = 0; }

bool AllocationFailure::happened() const { return t_failed; }

}  // namespace testsupport

// The other forms of new and delete come down to these two pairs.
void* operator new(std::size_t size) {
    if (t_untilFailure > 0 && --t_untilFailure == 0) {
        t_failed = true;
        throw std::bad_alloc();
    }
    if (void* const memory = std::malloc(size ? size : 1)) return memory;
    throw std::bad_alloc();
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
