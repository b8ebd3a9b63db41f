#include "SegmentAccess.h"

#include <cerrno>

#include "Log.h"

namespace shared_memory {

using VDIFrameworkCommon::LocalLock;

SegmentAccess::SegmentAccess(const SlotGate& gate)
    : m_gate(gate), m_controller(SharedMemoryRWController::getInstance()) {}

bool SegmentAccess::startController() {
    if (m_controller->start()) return true;
    LocalLock lock(m_mutex);
    m_error = openErrorFor(EAGAIN);
    return false;
}

bool SegmentAccess::setUp(const SegmentSlot& slot, std::string name, bool isReady) {
    LocalLock lock(m_mutex);
    m_error = slot.error();
    m_name.swap(name);
    return isReady;
}

bool SegmentAccess::refuse() {
    LocalLock lock(m_mutex);
    m_error = openErrorFor(ENOMEM);
    return false;
}

std::string SegmentAccess::name() {
    LocalLock lock(m_mutex);
    return m_name;
}

OpenError SegmentAccess::error() {
    LocalLock lock(m_mutex);
    return m_error;
}

bool SegmentAccess::mayOperate(Mode mode) {
    const bool may = m_gate.isOpen() && m_mode == mode;
    if (!may) logIllegalOperation();
    return may;
}

bool SegmentAccess::mayRead() { return follow(m_controller->canRead(), m_lastCanRead, "Canread"); }

bool SegmentAccess::mayWrite(const void* data) {
    if (!follow(m_controller->canWrite(), m_lastCanWrite, "Canwrite") ||
        !mayOperate(Mode::Writer)) {
        return false;
    }
    if (!data) NORVO_LOG(Warning, "Null data pointer!", name());
    return data != nullptr;
}

bool SegmentAccess::follow(bool allowed, std::atomic<bool>& last, const char* flag) {
    if (allowed != last.load(std::memory_order_relaxed)) {
        NORVO_LOG(Notice, flag, " flag turns to ", allowed ? "true" : "false", ": ", name());
        last.store(allowed, std::memory_order_relaxed);
    }
    return allowed;
}

void SegmentAccess::logIllegalOperation() {
    NORVO_LOG_REPEATED(m_illegal, Warning, "Illegal operation!", name());
}

}  // namespace shared_memory
