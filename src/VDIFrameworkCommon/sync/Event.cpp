#include "Event.h"

namespace VDIFrameworkCommon {

void Event::set() {
    LocalLock lock(m_mutex);
    m_set = true;
    m_condition.notify_all();
}

bool Event::timedWait(long milliseconds) {
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    LocalLock lock(m_mutex);
    while (!m_set && m_condition.wait_until(m_mutex, deadline)) {
    }
    const bool wasSet = m_set;
    if (m_autoReset) m_set = false;
    return wasSet;
}

}  // namespace VDIFrameworkCommon
