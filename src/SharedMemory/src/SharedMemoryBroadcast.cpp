#include "SharedMemoryBroadcast.h"

#include "Log.h"

namespace shared_memory {

using VDIFrameworkCommon::LocalLock;

namespace {

constexpr unsigned int kPollMs = 20;
constexpr unsigned int kWriteWaitMs = 3000;

}  // namespace

SharedMemoryBroadcast::~SharedMemoryBroadcast() {
    if (isOpen()) SharedMemoryBroadcast::Close();
}

SlotEnd& SharedMemoryBroadcast::end(Mode mode) {
    if (mode == Mode::Reader) return m_broadcastReader;
    m_broadcastWriter.setTime(ElapsedMillisecond());
    return m_broadcastWriter;
}

bool SharedMemoryBroadcast::LockWrite() {
    LocalLock operation(m_operationLock);
    return isSound() && m_broadcastWriter.tryLock(ElapsedMillisecond());
}

bool SharedMemoryBroadcast::WaitLockWrite(unsigned int timeout) {
    LocalLock operation(m_operationLock);
    return waitForTurn(timeout);
}

bool SharedMemoryBroadcast::waitForTurn(unsigned int timeout) {
    const unsigned int start = ElapsedMillisecond();
    m_broadcastWriter.beginWait(start);
    for (unsigned int now = start; isSound(); now = ElapsedMillisecond()) {
        if (HasObservers() && !IsReadRunning()) return false;
        if (!HasObservers()) {
            if (m_broadcastWriter.hasSettled(now) && m_broadcastWriter.tryLock(now)) return true;
            if (now - start >= timeout) return false;
        }
        m_broadcastWriter.waitForReaders(now);
    }
    return false;
}

void SharedMemoryBroadcast::UnlockWrite() {
    LocalLock operation(m_operationLock);
    if (m_slot.isMapped()) m_broadcastWriter.unlock();
}

bool SharedMemoryBroadcast::LockRead() {
    LocalLock operation(m_operationLock);
    return m_slot.isMapped() && m_broadcastReader.enterRead();
}

void SharedMemoryBroadcast::UnlockRead() {
    LocalLock operation(m_operationLock);
    if (m_slot.isMapped()) m_broadcastReader.leaveRead();
}

bool SharedMemoryBroadcast::writeMessage(const void* data, unsigned int length) {
    const std::string& name = m_slot.name();
    if (length > m_slot.capacity()) {
        NORVO_LOG_REPEATED(m_tooLong, Warning, "Message too long!", name);
        return false;
    }
    if (!waitForTurn(kWriteWaitMs)) {
        // Nothing is wrong where nobody listens, or when it was closed meanwhile.
        if (isOpen() && (m_slot.isTruncated() || !m_broadcastWriter.isAlone())) {
            NORVO_LOG_REPEATED(m_notTaken, Error, "Failed to lock for writing!", name);
        } else {
            NORVO_LOG_REPEATED(m_nobodyListens, Info, "Failed to lock for writing!", name);
        }
        return false;
    }
    return m_broadcastWriter.publish(data, length, ElapsedMillisecond());
}

std::string SharedMemoryBroadcast::ReadData(unsigned int& length, unsigned int /*timeout*/) {
    length = 0;
    return mayOperate(Mode::Reader) ? SharedMemoryBase::ReadData(length, kPollMs) : std::string();
}

bool SharedMemoryBroadcast::waitForMessage(unsigned int timeout) {
    const bool waits = m_broadcastReader.wait(std::chrono::milliseconds(timeout));
    if (!waits) m_broadcastReader.stayCounted();
    return waits;
}

std::string SharedMemoryBroadcast::takeMessage(unsigned int /*silence*/) {
    return m_broadcastReader.take();
}

std::string SharedMemoryBroadcast::takeMessageNow() {
    return isSound() && NewMessage(true) ? m_broadcastReader.take() : std::string();
}

bool SharedMemoryBroadcast::NewMessage(bool update) {
    if (!m_slot.isMapped()) return false;
    const SegmentSlot::Section section(m_slot);
    return section && m_broadcastReader.advance(update);
}

}  // namespace shared_memory
