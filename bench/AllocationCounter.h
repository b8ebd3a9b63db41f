// Counts the allocations of the whole process (every thread) while a counter lives.
//
// The program replaces the global operator new. Counting is off, and costs a load and a branch,
// unless a counter lives: never measure times and allocations in the same pass.
#pragma once

#include <cstdint>

namespace bench {

// One at a time.
class AllocationCounter {
public:
    struct Count {
        std::uint64_t count;
        std::uint64_t bytes;
    };
    AllocationCounter();
    ~AllocationCounter();
    AllocationCounter(const AllocationCounter&) = delete;
    AllocationCounter& operator=(const AllocationCounter&) = delete;

    // Allocations since construction.
    Count read() const;
};

}  // namespace bench
