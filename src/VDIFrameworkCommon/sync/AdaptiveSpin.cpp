#include "AdaptiveSpin.h"

#include <algorithm>

namespace VDIFrameworkCommon {

namespace {

constexpr int kMost = 16;
constexpr int kEnough = 4;
constexpr int kLoss = 4;
// A longer wake-up shows that the processor was busy, not what a wake-up costs.
constexpr AdaptiveSpin::Duration kLongestWakeUp = std::chrono::microseconds(50);

std::atomic<bool> g_enabled{true};

}  // namespace

AdaptiveSpin::Duration AdaptiveSpin::budget(int peerCpu, int ownCpu) const {
    const bool sameCpu = peerCpu >= 0 && peerCpu == ownCpu;
    const bool pays = m_credit.load(std::memory_order_relaxed) >= kEnough;
    return pays && !sameCpu && g_enabled.load(std::memory_order_relaxed) ? kLongestSpin
                                                                         : Duration::zero();
}

void AdaptiveSpin::timedOut() { judge(false); }

void AdaptiveSpin::notified(Duration waited, Duration wakeUp) {
    judge(waited <= kLongestSpin + 2 * std::clamp(wakeUp, Duration::zero(), kLongestWakeUp));
}

void AdaptiveSpin::judge(bool paid) {
    const int credit = m_credit.load(std::memory_order_relaxed);
    const int next = paid ? std::min(credit + 1, kMost) : std::max(credit - kLoss, 0);
    if (next != credit) m_credit.store(next, std::memory_order_relaxed);
}

void AdaptiveSpin::setEnabled(bool enabled) { g_enabled.store(enabled, std::memory_order_relaxed); }

}  // namespace VDIFrameworkCommon
