#pragma once

#include <atomic>
#include <mutex>
#include <thread>

// The mutex lent to the host: not recursive, and checked, since the host may misuse it.
struct NorvoMutex {
public:
    NorvoMutex() = default;
    // Unlocks what the calling thread still holds.
    ~NorvoMutex();
    NorvoMutex(const NorvoMutex&) = delete;
    NorvoMutex& operator=(const NorvoMutex&) = delete;

    // A thread that holds the mutex already gets a log line instead of a deadlock.
    void lock();
    bool tryLock();
    // Nothing but a log line when the calling thread does not hold the mutex.
    void unlock();

private:
    bool isHeldByThisThread() const { return m_owner.load() == std::this_thread::get_id(); }

    std::mutex m_mutex;
    std::atomic<std::thread::id> m_owner{};
};

namespace NorvoVirtualChannel::tc {

// The mutex that `*slot` points at, made first when there is none; threads that do so at once get
// the same one. Null, with a log line, for a null `slot`.
NorvoMutex* mutexIn(NorvoMutex** slot);

}  // namespace NorvoVirtualChannel::tc
