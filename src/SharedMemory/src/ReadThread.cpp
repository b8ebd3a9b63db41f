#include "ReadThread.h"

#include <unistd.h>

#include <utility>

#include "Contained.h"

namespace shared_memory {

namespace {
constexpr unsigned int kPauseAfterFailureMs = 100;
}

using VDIFrameworkCommon::LocalLock;

void ReadThread::subscribe(SharedMemoryObserverI* observer) {
    m_observers.insert(observer);
    follow();
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
    while (m_isRunning && !endsByItself()) {
        const bool done = VDIFrameworkCommon::contained("Reading for the observers", [this] {
            std::string message = m_source.read();
            if (m_isRunning && !message.empty())
                m_observers.deliver(std::move(message), &m_segment);
        });
        if (!done) pause(kPauseAfterFailureMs);
    }
    m_id = std::thread::id();
}

bool ReadThread::endsByItself() {
    LocalLock ending(m_endMutex);
    const bool ends = !hasObservers() || !m_source.isReadable();
    if (ends) m_isRunning = false;
    return ends;
}

}  // namespace shared_memory
