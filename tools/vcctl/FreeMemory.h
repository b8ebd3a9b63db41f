#pragma once

#include <cstdint>

namespace vcctl {

// Returns the allocator's unused memory to the system. May take milliseconds, during which other
// threads' allocations wait.
void trimHeap();

// Returns memory when traffic has ebbed: the allocator keeps most of what a flood needed.
class MemoryAfterTraffic {
public:
    // Call periodically with the number of bytes carried so far.
    void look(std::uint64_t carried) {
        if (carried == m_lastLook && carried - m_lastGiven > kWorthIt) {
            trimHeap();
            m_lastGiven = carried;
        }
        m_lastLook = carried;
    }

private:
    static constexpr std::uint64_t kWorthIt = 16U << 20U;
    std::uint64_t m_lastLook = 0;
    std::uint64_t m_lastGiven = 0;
};

}  // namespace vcctl
