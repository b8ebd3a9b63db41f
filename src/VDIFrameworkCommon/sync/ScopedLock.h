#pragma once

#include "Mutex.h"

namespace VDIFrameworkCommon {

// Locks a Mutex for its own lifetime. A failure to lock is not an error here: check owns().
class ScopedLock {
public:
    explicit ScopedLock(Mutex& mutex) : m_mutex(mutex), m_owns(mutex.lock()) {}
    ~ScopedLock() {
        if (m_owns) m_mutex.unlock();
    }
    ScopedLock(const ScopedLock&) = delete;
    ScopedLock& operator=(const ScopedLock&) = delete;

    bool owns() const { return m_owns; }

private:
    Mutex& m_mutex;
    bool m_owns;
};

}  // namespace VDIFrameworkCommon
