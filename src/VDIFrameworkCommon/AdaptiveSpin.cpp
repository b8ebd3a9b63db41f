#include "AdaptiveSpin.h"

#include <algorithm>

namespace VDIFrameworkCommon {

namespace {

constexpr int kMost = 16;
constexpr int kEnough = 4;
constexpr int kLoss = 4;
// A wait this short, when parked, was one or two wake-ups and little else.
constexpr AdaptiveSpin::Duration kShortWait = 2 * AdaptiveSpin::kLongestSpin;

std::atomic<bool> g_enabled{true};

}  // namespace

AdaptiveSpin::Duration AdaptiveSpin::budget(int peerCpu, int ownCpu) const {
    const bool sameCpu = peerCpu >= 0 && peerCpu == ownCpu;
    const bool pays = m_credit.load(std::memory_order_relaxed) >= kEnough;
    return pays && !sameCpu && g_enabled.load(std::memory_order_relaxed) ? kLongestSpin
                                                                         : Duration::zero();
}

void AdaptiveSpin::ended(Duration waited, bool notified) {
    const int credit = m_credit.load(std::memory_order_relaxed);
    const bool wasShort = notified && waited <= kShortWait;
    const int next = wasShort ? std::min(credit + 1, kMost) : std::max(credit - kLoss, 0);
    if (next != credit) m_credit.store(next, std::memory_order_relaxed);
}

void AdaptiveSpin::setEnabled(bool enabled) { g_enabled.store(enabled, std::memory_order_relaxed); }

}  // namespace VDIFrameworkCommon
