#pragma once

#include <cstdint>

namespace vcctl {

// Has the allocator give the system what it holds and nobody uses. It may take milliseconds, in
// which other threads wait for memory.
void giveFreeMemoryBack();

// Gives memory back when traffic has ebbed: of what a flood needed, the allocator keeps most.
class MemoryAfterTraffic {
public:
    // To be called now and then with how many bytes were carried so far.
    void look(std::uint64_t carried) {
        if (carried == m_lastLook && carried - m_lastGiven > kWorthIt) {
            giveFreeMemoryBack();
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
