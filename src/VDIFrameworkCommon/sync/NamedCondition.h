#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>

#include "AdaptiveSpin.h"
#include "WaitOnAddress.h"

namespace VDIFrameworkCommon {

class NamedMutex;
class NamedObject;

// A condition that every process of one user reaches by name, and that counts its notifications.
//
// Each handle remembers the count it has seen. A notification by another handle made before a wait
// satisfies that wait, so none is lost between a test and the wait; a handle's own notifications
// made before its wait do not. A new handle counts what was notified before it by another process
// that still lives, or through another handle of this process that still exists: so a partner that
// is already there is noticed, and one that has gone is not. Thread-safe.
class NamedCondition {
public:
    NamedCondition();
    // Releases the handle, not the system-wide object.
    ~NamedCondition();
    NamedCondition(const NamedCondition&) = delete;
    NamedCondition& operator=(const NamedCondition&) = delete;

    // Opens the condition called `name`, making it when there is none; before any other use. Fails
    // as NamedMutex::create.
    bool create(const char* name);

    // Called with `mutex` locked by the caller: releases it, waits until another handle has
    // notified or `milliseconds` have passed, and locks it again. True when notified. The state the
    // caller waits for must be tested again in either case. False also when the mutex could not be
    // locked again within `relock` (ask NamedMutex::owns), and at once on a handle that was never
    // created. A thread that waits already is woken by a notification through its own handle too.
    bool timed_wait(NamedMutex& mutex, unsigned int milliseconds,
                    std::chrono::milliseconds relock = std::chrono::milliseconds(2000));

    // Wakes every waiter of this name in every process. Needs no lock.
    void notify();

    // How many notifications there have been, by anyone; wraps. 0 on a handle never created.
    std::uint64_t count() const;

private:
    bool waitPast(std::uint64_t seen, unsigned int milliseconds);
    bool spinPast(std::uint64_t seen, WaitClock::time_point start) const;
    void rememberPeer();

    std::shared_ptr<NamedObject> m_object;
    // The object's count as far as this handle has seen it, its own notifications included.
    std::atomic<std::uint64_t> m_seen{0};
    std::atomic<bool> m_hasNotified{false};
    AdaptiveSpin m_spin;
    std::atomic<int> m_peerCpu{-1};
};

}  // namespace VDIFrameworkCommon
