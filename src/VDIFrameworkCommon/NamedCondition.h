#pragma once

#include <memory>

namespace VDIFrameworkCommon {

class NamedMutex;
class NamedObject;

// A condition that every process of one user reaches by name, and that counts its notifications.
//
// Each handle remembers the count it has seen. A notification by another handle made before a wait
// satisfies that wait, so none is lost between a test and the wait; a handle's own notifications
// made before its wait do not. A new handle counts what a living other process notified before it.
// Thread-safe.
class NamedCondition {
public:
    NamedCondition();
    // Releases the handle, not the system-wide object.
    ~NamedCondition();
    NamedCondition(const NamedCondition&) = delete;
    NamedCondition& operator=(const NamedCondition&) = delete;

    // Opens the condition called `name`, making it when there is none; fails as NamedMutex::create.
    bool create(const char* name);

    // Called with `mutex` locked by the caller: releases it, waits until another handle has
    // notified or `milliseconds` have passed, and locks it again. True when notified. The state the
    // caller waits for must be tested again in either case.
    bool timed_wait(NamedMutex& mutex, unsigned int milliseconds);

    // Wakes every waiter of this name in every process. Needs no lock.
    void notify();

private:
    std::shared_ptr<NamedObject> m_object;
};

}  // namespace VDIFrameworkCommon
