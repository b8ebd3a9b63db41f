#include "SlotGate.h"

namespace shared_memory {

using VDIFrameworkCommon::LocalLock;

void SlotGate::attach(const std::string& readCondition, const std::string& writeCondition) {
    LocalLock lock(m_mutex);
    m_written.create(readCondition.c_str());
    m_taken.create(writeCondition.c_str());
}

void SlotGate::halt() {
    m_halted = true;
    wake();
}

bool SlotGate::close() {
    const bool wasOpen = m_open.exchange(false);
    if (wasOpen) wake();
    return wasOpen;
}

void SlotGate::wake() {
    LocalLock lock(m_mutex);
    const auto now = VDIFrameworkCommon::WaitClock::now();
    if (m_written.isIntact(now)) m_written.notify();
    if (m_taken.isIntact(now)) m_taken.notify();
}

}  // namespace shared_memory
