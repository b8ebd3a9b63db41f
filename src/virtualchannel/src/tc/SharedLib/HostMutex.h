#pragma once

#include <atomic>
#include <mutex>
#include <thread>

// The mutex type offered to the host: not recursive, and checked, since the host may misuse it.
struct NorvoMutex {
public:
    NorvoMutex() = default;
    // Unlocks what the calling thread still holds.
    ~NorvoMutex();
    NorvoMutex(const NorvoMutex&) = delete;
    NorvoMutex& operator=(const NorvoMutex&) = delete;

    // On a thread that already holds the mutex, lock() logs a line instead of deadlocking, and
    // tryLock() returns false.
    void lock();
    bool tryLock();
    // Only logs a line when the calling thread does not hold the mutex.
    void unlock();

private:
    bool isHeldByThisThread() const { return m_owner.load() == std::this_thread::get_id(); }

    std::mutex m_mutex;
    std::atomic<std::thread::id> m_owner{};
};

namespace NorvoVirtualChannel::tc {

// The mutex that `*slot` points to, made first if null; threads that do so at once get the same
// one. Null, with a log line, for a null `slot`.
NorvoMutex* mutexIn(NorvoMutex** slot);

}  // namespace NorvoVirtualChannel::tc
