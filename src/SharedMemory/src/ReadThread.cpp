#include "ReadThread.h"

#include <unistd.h>

#include <utility>

#include "Contained.h"

namespace shared_memory {

namespace {
constexpr unsigned int kPauseAfterFailureMs = 100;
// How long to wait at a time: a message, a stop and a close end the wait. What notifies nobody, as
// a removed object, is found this late; later after three waits that brought nothing.
constexpr unsigned int kWaitMs = 200;
constexpr unsigned int kQuietWaitMs = 1000;
constexpr unsigned int kWaitsUntilQuiet = 3;
}  // namespace

using VDIFrameworkCommon::LocalLock;

bool ReadThread::subscribe(SharedMemoryObserverI* observer) {
    const bool isSubscribed = VDIFrameworkCommon::contained("Subscribing an observer", [&] {
        m_observers.insert(observer);
        follow();
    });
    // The caller may destroy it.
    if (!isSubscribed) m_observers.erase(observer);
    return isSubscribed;
}

void ReadThread::unsubscribe(SharedMemoryObserverI* observer) {
    m_observers.erase(observer);
    follow();
}

void ReadThread::unsubscribeAll() {
    m_observers.eraseAll();
    follow();
}

// Starts the thread if there are observers, else ends it. On the thread there is nothing to do: it
// checks the observers after each call.
void ReadThread::follow() {
    if (isCurrent()) return;
    LocalLock thread(m_threadMutex);
    if (!hasObservers()) end();
    // An observer may have subscribed from inside its last call.
    if (hasObservers()) start();
}

void ReadThread::start() {
    {
        LocalLock ending(m_endMutex);
        if (m_isRunning) return;
    }
    end();
    m_isRunning = true;
    m_process = getpid();
    try {
        m_thread = std::thread(&ReadThread::run, this);
    } catch (...) {
        m_isRunning = false;
        throw;
    }
}

void ReadThread::end() {
    const bool wasRunning = m_isRunning.exchange(false);
    if (wasRunning) {
        m_stopEvent.set();
        m_gate.halt();
    }
    // A thread does not survive a fork: only the process that started it may join it.
    if (m_thread.joinable()) m_process == getpid() ? m_thread.join() : m_thread.detach();
    if (wasRunning) m_gate.resume();
}

void ReadThread::stop() {
    LocalLock thread(m_threadMutex);
    end();
}

void ReadThread::run() {
    m_id = std::this_thread::get_id();
    unsigned int vainWaits = 0;
    while (m_isRunning && !endsByItself()) {
        const bool isQuiet = vainWaits >= kWaitsUntilQuiet;
        vainWaits = readOnce(isQuiet ? kQuietWaitMs : kWaitMs) ? 0 : vainWaits + (isQuiet ? 0 : 1);
    }
    m_id = std::thread::id();
}

bool ReadThread::readOnce(unsigned int wait) {
    bool hasCome = false;
    const bool done = VDIFrameworkCommon::contained("Reading for the observers", [&] {
        std::string message = m_source.read(wait);
        hasCome = !message.empty();
        if (m_isRunning && hasCome) m_observers.deliver(std::move(message), &m_segment);
    });
    if (!done) pause(kPauseAfterFailureMs);
    return hasCome;
}

bool ReadThread::endsByItself() {
    LocalLock ending(m_endMutex);
    const bool ends = !hasObservers() || !m_source.isReadable();
    if (ends) m_isRunning = false;
    return ends;
}

}  // namespace shared_memory
