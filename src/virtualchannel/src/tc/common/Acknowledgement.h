#pragma once

#include <atomic>
#include <chrono>
#include <memory>

#include "LocalMutex.h"

namespace NorvoVirtualChannel::tc {

// Lets one thread wait until a given acknowledgement number arrives as the whole text of a received
// message. Thread-safe, but for one wait at a time.
class Acknowledgement {
public:
    static constexpr int kTimedOut = 60;  // whatever ETIMEDOUT is on this system

    // The process-wide one, made when there is none. Stays valid for as long as it is held, also
    // after Shutdown().
    static std::shared_ptr<Acknowledgement> GetInstance();
    // Takes the process-wide one out of use: the next GetInstance() makes a new one. A thread that
    // waits in the old one is neither woken nor waited for.
    static void Shutdown();

    // How long WaitForAck() waits at most.
    explicit Acknowledgement(std::chrono::milliseconds limit = std::chrono::seconds(1));

    // Waits for `ack` (not negative). 0 when it came or ClearCurrentAck() ended the wait, kTimedOut
    // when the time passed.
    int WaitForAck(int ack);
    // 0 when the `length` bytes at `data` are exactly the decimal text of the number awaited now,
    // and wakes its waiter; else -1.
    int CheckAck(const void* data, unsigned int length);
    // Ends the wait, if there is one.
    void ClearCurrentAck();

private:
    static constexpr int kNothing = -1;

    void wake();

    const std::chrono::milliseconds m_limit;
    // Held from before m_currentAck is set until the waiter sleeps, so that no answer to it comes
    // too early.
    VDIFrameworkCommon::LocalMutex m_mutex;
    VDIFrameworkCommon::LocalCondition m_condition;
    std::atomic<int> m_currentAck{kNothing};
};

}  // namespace NorvoVirtualChannel::tc
