#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>

#include "AdaptiveSpin.h"
#include "StandIn.h"
#include "WaitOnAddress.h"

namespace VDIFrameworkCommon {

class NamedMutex;
class NamedObject;

// A condition variable shared by name among one user's processes, which counts its notifications.
//
// Each handle remembers the count it has seen. A notification by another handle made before a wait
// satisfies that wait, so none is lost between a test and the wait; the handle's own earlier
// notifications do not. A new handle counts earlier notifications made by another living process,
// or through another handle of this process that still exists: so a peer that is already there is
// noticed, and one that has gone is not. Thread-safe.
class NamedCondition {
public:
    NamedCondition();
    // Releases the handle, not the system-wide object.
    ~NamedCondition();
    NamedCondition(const NamedCondition&) = delete;
    NamedCondition& operator=(const NamedCondition&) = delete;

    // Opens the condition called `name`, creating it if there is none; call it before anything
    // else. Fails like NamedMutex::create.
    bool create(const char* name);

    // Called with `mutex` locked by the caller: releases it, waits until another handle has
    // notified or `milliseconds` have passed, and locks it again. True when notified. The caller
    // must test its state again in either case. Also false when the mutex could not be locked again
    // within `relock` (check NamedMutex::owns), as when another process has truncated one of the
    // two objects (check isIntact), and at once on a handle that was never created. A
    // thread that is already waiting is also woken by a notification through its own handle.
    bool timed_wait(NamedMutex& mutex, unsigned int milliseconds,
                    std::chrono::milliseconds relock = std::chrono::milliseconds(2000));

    // Whether another handle has notified since this one last waited: a wait would end at once.
    bool isNotified() const { return m_object && count() != m_seen.load(); }

    // Wakes every waiter of this name in every process. Needs no lock.
    void notify();

    // For a thread that waits in another way: the word that a notification by another handle
    // changes. Empty when there has been one since this handle last waited.
    std::optional<Awaited> beginWait();
    // Afterwards, as after a wait, only later notifications count.
    void endWait() { m_seen = count(); }

    // Like those of a NamedMutex.
    bool isCurrent() const;
    bool isIntact(WaitClock::time_point now) const;

    // How many notifications there have been, by anyone; wraps. 0 on a handle never created.
    std::uint64_t count() const;

private:
    enum class Passed { Spinning, Sleeping, No };
    Passed waitPast(std::uint64_t seen, unsigned int milliseconds);
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
