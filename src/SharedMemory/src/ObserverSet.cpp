#include "ObserverSet.h"

#include <iterator>
#include <utility>

#include "Contained.h"

namespace shared_memory {

using VDIFrameworkCommon::contained;
using VDIFrameworkCommon::LocalLock;

namespace {
constexpr char kFailure[] = "An observer of a segment";
}

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
    Call call = beginCallAfter(nullptr);
    for (; call.observer && !call.isLast; call = beginCallAfter(call.observer)) {
        contained(kFailure, [&] { call.observer->onNewMessageReceived(message, source); });
        endCall();
    }
    if (!call.observer) return;
    contained(kFailure, [&] { call.observer->onNewMessageReceived(std::move(message), source); });
    endCall();
}

std::shared_ptr<VDIFrameworkCommon::StandIn> ObserverSet::standIn() {
    std::shared_ptr<VDIFrameworkCommon::StandIn> standIn;
    const Call call = beginCallAfter(nullptr);
    if (call.observer && call.isLast)
        contained(kFailure, [&] { standIn = call.observer->standIn(); });
    endCall();
    return standIn;
}

bool ObserverSet::deliverAtOnce(const std::string& message) {
    bool isTaken = false;
    const Call call = beginCallAfter(nullptr);
    if (call.observer && call.isLast)
        contained(kFailure, [&] { isTaken = call.observer->takeAtOnce(message); });
    endCall();
    return isTaken;
}

ObserverSet::Call ObserverSet::beginCallAfter(SharedMemoryObserverI* previous) {
    LocalLock lock(m_mutex);
    const auto next = previous ? m_observers.upper_bound(previous) : m_observers.begin();
    if (next == m_observers.end()) return {};
    m_called = *next;
    m_caller = std::this_thread::get_id();
    return {m_called, std::next(next) == m_observers.end()};
}

void ObserverSet::endCall() {
    LocalLock lock(m_mutex);
    m_called = nullptr;
    m_callEnded.notify_all();
}

}  // namespace shared_memory
