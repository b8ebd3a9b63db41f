// Counts the bytes that the whole process (every thread) copies while a counter lives.
//
// The program is linked so that its calls of memcpy and memmove come through here (CMakeLists.txt).
// Not counted: copies of a few bytes that the compiler inlines, and those inside shared libraries.
// Counting is off, and costs a load and a branch, unless a counter lives: never measure times and
// copies in the same pass.
#pragma once

#include <cstdint>

namespace bench {

// One at a time.
class CopyCounter {
public:
    CopyCounter();
    ~CopyCounter();
    CopyCounter(const CopyCounter&) = delete;
    CopyCounter& operator=(const CopyCounter&) = delete;

    // Bytes copied since construction.
    std::uint64_t read() const;
};

}  // namespace bench
