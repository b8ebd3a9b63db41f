#pragma once

#include <atomic>
#include <chrono>
#include <thread>

#include "ThreadAnnotations.h"

namespace NorvoVirtualChannel {

// A mutex for a place that one thread comes to very often, and another one hardly ever. Taking it
// costs one atomic exchange and giving it back none, half of what the ordinary mutex takes per
// packet. A thread that finds it taken polls: first it yields, then it naps.
class NORVO_CAPABILITY("mutex") RareContentionLock {
public:
    void lock() NORVO_ACQUIRE() {
        for (int attempt = 0; m_taken.exchange(true, std::memory_order_acquire); ++attempt) {
            if (attempt < 100) {
                std::this_thread::yield();
            } else {
                std::this_thread::sleep_for(std::chrono::microseconds(100));
                attempt = 100;
            }
        }
    }
    void unlock() NORVO_RELEASE() { m_taken.store(false, std::memory_order_release); }

private:
    std::atomic<bool> m_taken{false};
};

// Holds one for a scope.
class NORVO_SCOPED_CAPABILITY RareContentionGuard {
public:
    explicit RareContentionGuard(RareContentionLock& lock) NORVO_ACQUIRE(lock) : m_lock(lock) {
        m_lock.lock();
    }
    ~RareContentionGuard() NORVO_RELEASE() { m_lock.unlock(); }
    RareContentionGuard(const RareContentionGuard&) = delete;
    RareContentionGuard& operator=(const RareContentionGuard&) = delete;

private:
    RareContentionLock& m_lock;
};

}  // namespace NorvoVirtualChannel
