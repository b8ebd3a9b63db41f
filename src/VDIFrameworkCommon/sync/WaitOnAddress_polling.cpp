#include <sched.h>

#include <algorithm>
#include <thread>

#include "CpuRelax.h"
#include "WaitOnAddress.h"

namespace VDIFrameworkCommon::wait_backend {

namespace {

constexpr int kPauses = 64;
constexpr int kYields = 8;
constexpr std::chrono::microseconds kShortestSleep{50};
constexpr std::chrono::microseconds kLongestSleep{10000};
constexpr int kShareOfWait = 16;

bool unchanged(const WaitWord& word, std::uint64_t expected) {
    return word.load(std::memory_order_acquire) == expected;
}

// Since when this thread has been waiting for that change. An idle thread waits in slices, and its
// sleep must not start small again with each.
WaitClock::time_point waitingSince(const WaitWord& word, std::uint64_t expected) {
    struct Wait {
        const WaitWord* word;
        std::uint64_t expected;
        WaitClock::time_point since;
    };
    thread_local Wait t_latest{};
    if (t_latest.word != &word || t_latest.expected != expected) {
        t_latest = {&word, expected, WaitClock::now()};
    }
    return t_latest.since;
}

}  // namespace

bool poll(const WaitWord& word, std::uint64_t expected, WaitClock::time_point deadline) {
    for (int i = 0; i < kPauses && unchanged(word, expected); ++i) cpuRelax();
    for (int i = 0; i < kYields && unchanged(word, expected); ++i) sched_yield();
    const auto since = waitingSince(word, expected);
    while (unchanged(word, expected)) {
        const auto now = WaitClock::now();
        if (now >= deadline) return true;
        const WaitClock::duration sleep = std::clamp<WaitClock::duration>(
            (now - since) / kShareOfWait, kShortestSleep, kLongestSleep);
        std::this_thread::sleep_for(std::min(sleep, deadline - now));
        if (!isPresent(word)) return false;
    }
    return true;
}

}  // namespace VDIFrameworkCommon::wait_backend
