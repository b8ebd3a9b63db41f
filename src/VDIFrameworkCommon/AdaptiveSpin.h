#pragma once

#include <atomic>
#include <chrono>

namespace VDIFrameworkCommon {

// Decides whether a waiter looks at its word for a moment before it parks. Parking costs a wake-up
// of about 5 us; spinning saves it when the answer comes within the spin, and is a waste of the
// processor when it does not. So the waiter spins where nearly all of its last waits were short.
// Thread-safe.
class AdaptiveSpin {
public:
    using Duration = std::chrono::nanoseconds;

    static constexpr Duration kLongestSpin = std::chrono::microseconds(20);

    // How long to spin now: kLongestSpin or 0. The peer is the one who notified last; it cannot run
    // while the waiter spins on the peer's processor. Negative: not known.
    Duration budget(int peerCpu, int ownCpu) const;

    // Tells how a wait ended: how long it took in all, spinning and parking, and whether by a
    // notification.
    void ended(Duration waited, bool notified);

    // Switches spinning off (or on again) for this process; on at the start.
    static void setEnabled(bool enabled);

private:
    // Grows by 1 with each wait that spinning shortens or would have, falls by kLoss with others.
    std::atomic<int> m_credit{0};
};

}  // namespace VDIFrameworkCommon
