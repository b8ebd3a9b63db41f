#include "MultipleWritersOneReaderSM.h"

#include "SharedMemoryUtilities.h"

namespace shared_memory {

using VDIFrameworkCommon::LocalLock;

namespace {

constexpr unsigned int kLockWaitMs = 2000;

}  // namespace

MultipleWritersOneReaderSM::~MultipleWritersOneReaderSM() {
    if (isOpen()) MultipleWritersOneReaderSM::Close();
}

bool MultipleWritersOneReaderSM::writeMessage(const void* data, unsigned int length) {
    if (!waitForLock(kLockWaitMs)) return false;
    const bool written = SharedMemoryMacosx::writeMessage(data, length);
    m_lock.unlock();
    return written;
}

bool MultipleWritersOneReaderSM::LockWrite(unsigned int timeout) {
    LocalLock operation(m_operationLock);
    return waitForLock(timeout);
}

bool MultipleWritersOneReaderSM::waitForLock(unsigned int timeout) {
    const unsigned int start = ElapsedMillisecond();
    m_lock.beginWait(start);
    m_slot.check(Clock::now());
    for (unsigned int now = start; isOpen() && m_slot.isMapped(); now = ElapsedMillisecond()) {
        if (m_lock.tryLock(now)) return true;
        utilities::sleep(1);
        if (now - start >= timeout) return false;
    }
    return false;
}

void MultipleWritersOneReaderSM::UnlockWrite() {
    LocalLock operation(m_operationLock);
    m_lock.unlock();
}

std::string MultipleWritersOneReaderSM::readMessage(unsigned int timeout) {
    std::string message = SharedMemoryMacosx::readMessage(timeout);
    m_lock.watch(ElapsedMillisecond(), m_reader.chunksTaken(), message.empty());
    return message;
}

}  // namespace shared_memory
