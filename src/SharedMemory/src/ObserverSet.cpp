#include "ObserverSet.h"

#include <iterator>
#include <utility>

using VDIFrameworkCommon::LocalLock;

void ObserverSet::insert(SharedMemoryObserverI* observer) {
    if (!observer) return;
    LocalLock lock(m_mutex);
    m_observers.insert(observer);
    m_empty = false;
}

void ObserverSet::erase(SharedMemoryObserverI* observer) {
    LocalLock lock(m_mutex);
    m_observers.erase(observer);
    m_empty = m_observers.empty();
    while (m_called == observer && m_called && m_caller != std::this_thread::get_id()) {
        m_callEnded.wait(m_mutex);
    }
}

void ObserverSet::eraseAll() {
    LocalLock lock(m_mutex);
    m_observers.clear();
    m_empty = true;
    while (m_called && m_caller != std::this_thread::get_id()) m_callEnded.wait(m_mutex);
}

void ObserverSet::deliver(std::string message, SharedMemoryI* source) {
    bool last = false;
    SharedMemoryObserverI* observer = nullptr;
    while (!last && (observer = beginCall(observer, last))) {
        if (last) {
            observer->onNewMessageReceived(std::move(message), source);
        } else {
            // NOLINTNEXTLINE(bugprone-use-after-move): the loop ends after the last observer.
            observer->onNewMessageReceived(message, source);
        }
        endCall();
    }
}

SharedMemoryObserverI* ObserverSet::beginCall(SharedMemoryObserverI* previous, bool& last) {
    LocalLock lock(m_mutex);
    const auto next = previous ? m_observers.upper_bound(previous) : m_observers.begin();
    if (next == m_observers.end()) return nullptr;
    last = std::next(next) == m_observers.end();
    m_called = *next;
    m_caller = std::this_thread::get_id();
    return m_called;
}

void ObserverSet::endCall() {
    LocalLock lock(m_mutex);
    m_called = nullptr;
    m_callEnded.notify_all();
}
