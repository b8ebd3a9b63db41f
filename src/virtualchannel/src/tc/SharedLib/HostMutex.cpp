#include "HostMutex.h"

#include "PluginLog.h"

using NorvoVirtualChannel::tc::logMessage;

NorvoMutex::~NorvoMutex() {
    if (isHeldByThisThread()) unlock();
}

void NorvoMutex::lock() {
    if (isHeldByThisThread()) {
        logMessage(NORVO_LEVEL_WARNING, "MutexLock: the thread holds it already");
        return;
    }
    m_mutex.lock();
    m_owner = std::this_thread::get_id();
}

bool NorvoMutex::tryLock() {
    if (isHeldByThisThread() || !m_mutex.try_lock()) return false;
    m_owner = std::this_thread::get_id();
    return true;
}

void NorvoMutex::unlock() {
    if (!isHeldByThisThread()) {
        logMessage(NORVO_LEVEL_WARNING, "MutexUnlock: the thread does not hold it");
        return;
    }
    m_owner = std::thread::id();
    m_mutex.unlock();
}

namespace NorvoVirtualChannel::tc {

NorvoMutex* mutexIn(NorvoMutex** slot) {
    if (!slot) {
        logMessage(NORVO_LEVEL_WARNING, "null mutex");
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
