#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>

#include "LocalMutex.h"
#include "Mutex.h"
#include "WaitOnAddress.h"

namespace VDIFrameworkCommon {

class NamedObject;

// A mutex shared by name among one user's processes in one session namespace (Namespace.h).
//
// The lock belongs to a process and, inside it, to one handle. It is not recursive and not fair. A
// lock whose owner process has died is taken over at once; one whose owner lives is never taken
// away. Thread-safe: several threads may use one handle, and they exclude each other like processes
// do.
class NamedMutex : public Mutex {
public:
    NamedMutex();
    // Releases the handle, not the system-wide object, and not a lock the handle may still hold.
    ~NamedMutex() override;
    NamedMutex(const NamedMutex&) = delete;
    NamedMutex& operator=(const NamedMutex&) = delete;

    // Opens the mutex called `name`, creating it if there is none; call it before anything else.
    // False, after one log line, when the system refuses, or when an object of that name is not one
    // of ours.
    bool create(const char* name);

    // Waits up to 2000 ms. False when a living owner kept the lock that long, or when the handle
    // was never created.
    bool lock() override;
    // The same with another limit. An owner in another process-ID namespace, about which nothing
    // can be known, keeps its lock for 10 s after this handle first found it held.
    bool lockFor(std::chrono::milliseconds limit);
    // The same without waiting: false when another owner has it.
    bool tryLock();

    // Releases the lock that this handle holds, or that a dead process left behind. False when
    // there was none: a lock of another living owner is never touched.
    bool unlock() override;

    // Whether this handle holds the lock.
    bool owns() const;
    // Whether the name still refers to this mutex. A mutex removed from the system does not exclude
    // newcomers: create() opens the newer one. Always true where the system does not tell.
    bool isCurrent() const;
    // Whether the functions above may be called: NamedObject.h. True for one never created.
    bool isIntact(WaitClock::time_point now) const;

private:
    bool takeFromUnknown(std::uint64_t me);

    std::shared_ptr<NamedObject> m_object;
    LocalMutex m_unknownMutex;
    // An owner that cannot be judged, the release count at that time, and since when.
    std::uint64_t m_unknownOwner NORVO_GUARDED_BY(m_unknownMutex) = 0;
    std::uint64_t m_unknownReleased NORVO_GUARDED_BY(m_unknownMutex) = 0;
    std::chrono::steady_clock::time_point m_unknownSince NORVO_GUARDED_BY(m_unknownMutex){};
    // The identity of this process while it holds the lock through this handle. A copy in a forked
    // child names the parent, which is correct: the child holds nothing.
    std::atomic<std::uint64_t> m_holder{0};
};

}  // namespace VDIFrameworkCommon
