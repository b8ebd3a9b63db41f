// Mutex, lock and condition for the threads of one process: the standard ones, under names that
// Clang's thread-safety analysis can follow.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "ThreadAnnotations.h"

namespace VDIFrameworkCommon {

// A std::mutex: not recursive, owned by a thread.
class NORVO_CAPABILITY("mutex") LocalMutex {
public:
    void lock() NORVO_ACQUIRE() { m_mutex.lock(); }
    bool try_lock() NORVO_TRY_ACQUIRE(true) { return m_mutex.try_lock(); }
    void unlock() NORVO_RELEASE() { m_mutex.unlock(); }

private:
    friend class LocalCondition;
    std::mutex m_mutex;
};

// Holds a LocalMutex for a scope; may be released and taken again inside it.
class NORVO_SCOPED_CAPABILITY LocalLock {
public:
    explicit LocalLock(LocalMutex& mutex) NORVO_ACQUIRE(mutex) : m_mutex(mutex) { m_mutex.lock(); }
    // Takes over the lock that the caller has.
    LocalLock(LocalMutex& mutex, std::adopt_lock_t /*held*/) NORVO_REQUIRES(mutex)
        : m_mutex(mutex) {}
    ~LocalLock() NORVO_RELEASE() {
        if (m_held) m_mutex.unlock();
    }
    LocalLock(const LocalLock&) = delete;
    LocalLock& operator=(const LocalLock&) = delete;

    void unlock() NORVO_RELEASE() {
        m_mutex.unlock();
        m_held = false;
    }
    void lock() NORVO_ACQUIRE() {
        m_mutex.lock();
        m_held = true;
    }

private:
    LocalMutex& m_mutex;
    bool m_held = true;
};

// A std::condition_variable that waits on a LocalMutex the caller holds. Every wait may end
// spuriously: loop over the state.
class LocalCondition {
public:
    void wait(LocalMutex& mutex) NORVO_REQUIRES(mutex) {
        std::unique_lock<std::mutex> lock(mutex.m_mutex, std::adopt_lock);
        m_condition.wait(lock);
        lock.release();
    }

    // False when `deadline` passed without a notification.
    template <class Clock, class Duration>
    bool wait_until(LocalMutex& mutex, const std::chrono::time_point<Clock, Duration>& deadline)
        NORVO_REQUIRES(mutex) {
        std::unique_lock<std::mutex> lock(mutex.m_mutex, std::adopt_lock);
        const bool notified = m_condition.wait_until(lock, deadline) == std::cv_status::no_timeout;
        lock.release();
        return notified;
    }

    void notify_one() noexcept { m_condition.notify_one(); }
    void notify_all() noexcept { m_condition.notify_all(); }

private:
    std::condition_variable m_condition;
};

}  // namespace VDIFrameworkCommon
