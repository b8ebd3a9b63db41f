#include "HostMutex.h"

#include "PluginLog.h"

using NorvoVirtualChannel::tc::logMessage;

NorvoMutex::NorvoMutex() {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
    pthread_mutex_init(&m_mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

NorvoMutex::~NorvoMutex() { pthread_mutex_destroy(&m_mutex); }

void NorvoMutex::lock() {
    if (pthread_mutex_lock(&m_mutex) != 0) logMessage(4, "MutexLock: the thread holds it already");
}

bool NorvoMutex::tryLock() { return pthread_mutex_trylock(&m_mutex) == 0; }

void NorvoMutex::unlock() {
    if (pthread_mutex_unlock(&m_mutex) != 0)
        logMessage(4, "MutexUnlock: the thread does not hold it");
}

namespace NorvoVirtualChannel::tc {

NorvoMutex* mutexIn(NorvoMutex** slot) {
    if (!slot) {
        logMessage(4, "null mutex");
        return nullptr;
    }
    NorvoMutex* mutex = __atomic_load_n(slot, __ATOMIC_ACQUIRE);
    if (mutex) return mutex;
    auto* const made = new NorvoMutex;
    if (__atomic_compare_exchange_n(slot, &mutex, made, false, __ATOMIC_ACQ_REL,
                                    __ATOMIC_ACQUIRE)) {
        return made;
    }
    delete made;
    return mutex;
}

}  // namespace NorvoVirtualChannel::tc
