#pragma once

#include <atomic>
#include <chrono>
#include <memory>

#include "LocalMutex.h"

namespace NorvoVirtualChannel::tc {

// Lets a thread wait for a received message that consists of a given acknowledgement number.
// Thread-safe, but supports one wait at a time.
class Acknowledgement {
public:
    static constexpr int kTimedOut = 60;  // independent of the system's ETIMEDOUT

    // The process-wide instance, made when there is none. Stays valid as long as it is held, also
    // after Shutdown().
    static std::shared_ptr<Acknowledgement> GetInstance();
    // Discards the process-wide instance; the next GetInstance() makes a new one. A thread waiting
    // in the old one is neither woken nor waited for.
    static void Shutdown();

    // `limit`: the longest wait of WaitForAck().
    explicit Acknowledgement(std::chrono::milliseconds limit = std::chrono::seconds(1));

    // Waits for `ack` (not negative). 0 when it arrived or ClearCurrentAck() ended the wait,
    // kTimedOut after the limit.
    int WaitForAck(int ack);
    // When the `length` bytes at `data` are exactly the decimal text of the number awaited, wakes
    // the waiter and returns 0; else -1.
    int CheckAck(const void* data, unsigned int length);
    // Ends the current wait, if any.
    void ClearCurrentAck();

private:
    static constexpr int kNothing = -1;

    void wake();

    const std::chrono::milliseconds m_limit;
    // Held from before m_currentAck is set until the waiter sleeps, so that no wake-up is lost.
    VDIFrameworkCommon::LocalMutex m_mutex;
    VDIFrameworkCommon::LocalCondition m_condition;
    std::atomic<int> m_currentAck{kNothing};
};

}  // namespace NorvoVirtualChannel::tc
