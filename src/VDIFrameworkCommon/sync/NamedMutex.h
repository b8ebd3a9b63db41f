#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>

#include "LocalMutex.h"
#include "Mutex.h"

namespace VDIFrameworkCommon {

class NamedObject;

// A mutex that every process of one user reaches by name (in one session namespace, Namespace.h).
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

    // Opens the mutex called `name`, making it when there is none; before any other use. False,
    // after one log line, when the system refuses, or when an object of that name is not one of
    // ours.
    bool create(const char* name);

    // Waits for at most 2000 ms. False when a living owner kept the lock that long, or when the
    // handle was never created.
    bool lock() override;
    // The same with another limit. An owner of another process-ID namespace, of which nothing can
    // be known, keeps its lock for 10 s from when this handle first found it in the way.
    bool lockFor(std::chrono::milliseconds limit);

    // Releases what this handle holds, or what a dead process left behind. False when there was
    // nothing of that kind: the lock of a living other owner is never touched.
    bool unlock() override;

    // Whether this handle holds the lock.
    bool owns() const;
    // Whether the name still leads to this mutex. One that was removed from the system excludes
    // nobody who comes later: create() gives the newer one. Always true where the system does not
    // tell.
    bool isCurrent() const;

private:
    bool takeFromUnknown(std::uint64_t me);

    std::shared_ptr<NamedObject> m_object;
    LocalMutex m_unknownMutex;
    // An owner that cannot be judged, how often the lock had been released then, and since when.
    std::uint64_t m_unknownOwner NORVO_GUARDED_BY(m_unknownMutex) = 0;
    std::uint64_t m_unknownReleased NORVO_GUARDED_BY(m_unknownMutex) = 0;
    std::chrono::steady_clock::time_point m_unknownSince NORVO_GUARDED_BY(m_unknownMutex){};
    // The identity of this process while it holds the lock through this handle. A copy in a forked
    // child names the parent, which is right: the child holds nothing.
    std::atomic<std::uint64_t> m_holder{0};
};

}  // namespace VDIFrameworkCommon
