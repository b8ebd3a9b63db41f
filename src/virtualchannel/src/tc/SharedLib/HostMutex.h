#pragma once

#include <pthread.h>

// The mutex lent to the host: not recursive, and checked, since the host may misuse it.
struct NorvoMutex {
public:
    NorvoMutex();
    ~NorvoMutex();
    NorvoMutex(const NorvoMutex&) = delete;
    NorvoMutex& operator=(const NorvoMutex&) = delete;

    // A thread that holds the mutex already gets a log line instead of a deadlock.
    void lock();
    bool tryLock();
    // Nothing but a log line when the calling thread does not hold the mutex.
    void unlock();

private:
    pthread_mutex_t m_mutex;
};

namespace NorvoVirtualChannel::tc {

// The mutex that `*slot` points at, made first when there is none; threads that do so at once get
// the same one. Null, with a log line, for a null `slot`.
NorvoMutex* mutexIn(NorvoMutex** slot);

}  // namespace NorvoVirtualChannel::tc
