#pragma once

#include <atomic>
#include <chrono>

namespace VDIFrameworkCommon {

// Decides whether a waiter spins on its word before it parks. Parking costs a wake-up (5 us or
// more, by machine and load); spinning saves it when the answer comes within the spin, and wastes
// the processor when it does not. So the waiter spins if nearly all of its last waits were short,
// not counting wake-ups. Thread-safe.
class AdaptiveSpin {
public:
    using Duration = std::chrono::nanoseconds;

    static constexpr Duration kLongestSpin = std::chrono::microseconds(20);

    // How long to spin now: kLongestSpin or 0. The peer is the last notifier; it cannot run while
    // the waiter spins on the peer's processor. Negative: unknown.
    Duration budget(int peerCpu, int ownCpu) const;

    // A wait has ended without a notification.
    void timedOut();
    // A wait has ended by a notification after `waited` in total, of which this waiter's own
    // wake-up took `wakeUp` (0 when it did not park). The peer may have needed as long to wake
    // first.
    void notified(Duration waited, Duration wakeUp);

    // Switches spinning off (or on again) for this process; on at the start.
    static void setEnabled(bool enabled);

private:
    void judge(bool paid);

    // Grows by 1 with each wait that spinning shortened or would have, falls by kLoss with others.
    std::atomic<int> m_credit{0};
};

}  // namespace VDIFrameworkCommon
