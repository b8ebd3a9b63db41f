// Reading the clock; durations of single events and their percentiles.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <vector>

namespace bench {

inline std::uint64_t nowNanoseconds() {
    return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                          std::chrono::steady_clock::now().time_since_epoch())
                                          .count());
}

inline double secondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

inline constexpr double kNanosecondsPerMicrosecond = 1000;

class LatencyRecorder {
public:
    // Room for `expected` durations, so that add() does not allocate.
    explicit LatencyRecorder(std::size_t expected) { m_nanoseconds.reserve(expected); }

    void add(std::uint64_t nanoseconds) { m_nanoseconds.push_back(nanoseconds); }
    std::size_t count() const { return m_nanoseconds.size(); }

    // The duration that `share` (0 to 1) of all do not exceed, in ns; 0 if there are none.
    double percentile(double share) {
        if (m_nanoseconds.empty()) return 0;
        const double position = share * static_cast<double>(m_nanoseconds.size() - 1);
        const auto place = m_nanoseconds.begin() + static_cast<std::ptrdiff_t>(position);
        std::nth_element(m_nanoseconds.begin(), place, m_nanoseconds.end());
        return static_cast<double>(*place);
    }

private:
    std::vector<std::uint64_t> m_nanoseconds;
};

}  // namespace bench
