// Observers and read thread of SharedMemoryBase.
#include <utility>

#include "Log.h"
#include "SharedMemoryBase.h"

NORVO_LOG_SOURCE("src/SharedMemory/src/SharedMemoryBase")

using VDIFrameworkCommon::LocalLock;

namespace {

constexpr unsigned int kReadWaitMs = 200;

}  // namespace

void SharedMemoryBase::subscribeObserver(SharedMemoryObserverI* observer) {
    m_observers.insert(observer);
    followObservers();
}

void SharedMemoryBase::unsubscribeObserver(SharedMemoryObserverI* observer) {
    NORVO_LOG(Info, "Unsubscribe observer start, stream: ", m_name);
    m_observers.erase(observer);
    followObservers();
    NORVO_LOG(Info, "Unsubscribe observer stop, stream: ", m_name);
}

void SharedMemoryBase::unsubscribeAllObservers() {
    m_observers.eraseAll();
    followObservers();
}

// Starts or ends the read thread as there are observers or not. On the read thread there is nothing
// to do: it looks at the observers itself after each call.
void SharedMemoryBase::followObservers() {
    if (isOnReadThread()) return;
    LocalLock thread(m_threadLock);
    if (!HasObservers()) endReadThread();
    // An observer may have subscribed from inside its last call.
    if (HasObservers()) startReadThread();
}

void SharedMemoryBase::startReadThread() {
    {
        LocalLock end(m_endLock);
        if (m_readRunning) return;
    }
    endReadThread();
    m_readRunning = true;
    try {
        m_readThread = std::thread(&SharedMemoryBase::readThreadProcedure, this);
    } catch (...) {
        m_readRunning = false;
        throw;
    }
}

void SharedMemoryBase::endReadThread() {
    if (m_readRunning.exchange(false)) {
        m_stopEvent.set();
        m_readCondition.notify();
        m_writeCondition.notify();
    }
    if (m_readThread.joinable()) m_readThread.join();
}

void SharedMemoryBase::stopReadThread() {
    LocalLock thread(m_threadLock);
    endReadThread();
}

bool SharedMemoryBase::isReadingStopped() const {
    if (m_mode != Mode::Reader || m_readRunning) return false;
    return HasObservers() || m_readThreadId.load() != std::thread::id();
}

void SharedMemoryBase::readThreadProcedure() {
    LocalLock operation(m_operationLock);
    m_readThreadId = std::this_thread::get_id();
    while (m_readRunning && !endsReadThread()) readOnce();
    m_readThreadId = std::thread::id();
}

bool SharedMemoryBase::endsReadThread() {
    LocalLock end(m_endLock);
    const bool ends = !HasObservers() || !m_open || !mayOperate(Mode::Reader);
    if (ends) m_readRunning = false;
    return ends;
}

void SharedMemoryBase::readOnce() {
    if (!canRead()) {
        m_stopEvent.timedWait(kReadWaitMs);
        return;
    }
    unsigned int length = 0;
    std::string message = ReadData(length, kReadWaitMs);
    if (m_readRunning && m_open && !message.empty()) {
        notifyObserverMessageReceived(std::move(message));
    }
}

bool SharedMemoryBase::canRead() {
    const bool allowed = m_controller->canRead();
    if (allowed != m_lastCanRead) {
        NORVO_LOG(Notice, "Canread flag turns to ", allowed ? "true" : "false", ": ", m_name);
        m_lastCanRead = allowed;
    }
    return allowed;
}

void SharedMemoryBase::notifyObserverMessageReceived(std::string message) {
    m_observers.deliver(std::move(message), this);
}
