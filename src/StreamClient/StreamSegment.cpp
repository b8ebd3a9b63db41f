#include "StreamSegment.h"

namespace NorvoStreamClient {

using VDIFrameworkCommon::LocalLock;

bool StreamSegment::Create(const std::string& name, unsigned int capacity, Claim claim) {
    LocalLock lock(m_mutex);
    return m_slot.open(name, capacity, true, m_writer, claim);
}

bool StreamSegment::Open(const std::string& name, unsigned int capacity, Claim claim) {
    LocalLock lock(m_mutex);
    return m_slot.open(name, capacity, true, m_reader, claim);
}

shared_memory::OpenError StreamSegment::openError() {
    LocalLock lock(m_mutex);
    return m_slot.error();
}

void StreamSegment::Close() {
    if (!m_gate.close()) return;
    LocalLock lock(m_mutex);
    if (m_slot.isMapped()) m_slot.close();
}

bool StreamSegment::write(const void* data, unsigned int length, Clock::time_point deadline) {
    LocalLock lock(m_mutex);
    return m_gate.isOpen() && m_writer.write(data, length, deadline);
}

std::string StreamSegment::ReadData(unsigned int& length, unsigned int timeout) {
    const std::chrono::milliseconds wait(timeout);
    std::string message;
    LocalLock lock(m_mutex);
    if (m_gate.isOpen() && m_reader.wait(Clock::now() + wait)) message = m_reader.take(wait);
    length = static_cast<unsigned int>(message.size());
    return message;
}

bool StreamSegment::isDrained() {
    LocalLock lock(m_mutex);
    return !m_gate.isOpen() || m_writer.isDrained();
}

}  // namespace NorvoStreamClient
