#include <sched.h>

#include <algorithm>
#include <thread>

#include "CpuRelax.h"
#include "WaitOnAddress.h"

namespace VDIFrameworkCommon::wait_backend {

namespace {

constexpr int kPauses = 64;
constexpr int kYields = 8;
constexpr std::chrono::microseconds kFirstSleep{50};
constexpr std::chrono::microseconds kLongestSleep{1000};

bool unchanged(const WaitWord& word, std::uint64_t expected) {
    return word.load(std::memory_order_acquire) == expected;
}

}  // namespace

void poll(const WaitWord& word, std::uint64_t expected, WaitClock::time_point deadline) {
    for (int i = 0; i < kPauses && unchanged(word, expected); ++i) cpuRelax();
    for (int i = 0; i < kYields && unchanged(word, expected); ++i) sched_yield();
    WaitClock::duration sleep = kFirstSleep;
    while (unchanged(word, expected)) {
        const auto left = deadline - WaitClock::now();
        if (left <= WaitClock::duration::zero()) return;
        std::this_thread::sleep_for(std::min(sleep, left));
        sleep = std::min<WaitClock::duration>(2 * sleep, kLongestSleep);
    }
}

}  // namespace VDIFrameworkCommon::wait_backend
