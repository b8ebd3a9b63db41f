#include "ObserverSlot.h"

namespace NorvoVirtualChannel::tc {

using VDIFrameworkCommon::LocalLock;

bool ObserverSlot::takesTurns() const {
    return m_calls == ObserverCalls::OneAtATime && !insideOnThisThread();
}

void ObserverSlot::waitForTurn() {
    const std::uint64_t ticket = m_nextTicket++;
    while (m_turn != ticket) m_left.wait(m_mutex);
}

void ObserverSlot::passTurnOn() {
    ++m_turn;
    m_left.notify_all();
}

void ObserverSlot::store(Observer* observer) {
    m_observer = observer;
    m_isEmpty = !observer;
}

void ObserverSlot::set(Observer* observer) {
    LocalLock lock(m_mutex);
    if (takesTurns()) {
        waitForTurn();
        passTurnOn();
    }
    store(observer);
}

bool ObserverSlot::clearAndWait(std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    LocalLock lock(m_mutex);
    store(nullptr);
    while (m_inside != 0) {
        if (!m_left.wait_until(m_mutex, deadline) && m_inside != 0) return false;
    }
    return true;
}

Observer* ObserverSlot::enter() {
    LocalLock lock(m_mutex);
    if (takesTurns()) waitForTurn();
    if (m_observer) {
        ++m_inside;
    } else if (takesTurns()) {
        passTurnOn();
    }
    return m_observer;
}

void ObserverSlot::leave() {
    LocalLock lock(m_mutex);
    --m_inside;
    if (takesTurns()) passTurnOn();
    if (m_inside == 0) m_left.notify_all();
}

}  // namespace NorvoVirtualChannel::tc
