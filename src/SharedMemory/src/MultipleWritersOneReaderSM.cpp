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
    for (unsigned int now = start; isSound(); now = ElapsedMillisecond()) {
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

bool MultipleWritersOneReaderSM::waitForMessage(unsigned int timeout) {
    const bool waits = SharedMemoryMacosx::waitForMessage(timeout);
    m_lock.watch(ElapsedMillisecond(), m_reader.chunksTaken(), !waits);
    return waits;
}

std::string MultipleWritersOneReaderSM::takeMessage(unsigned int silence) {
    std::string message = SharedMemoryMacosx::takeMessage(silence);
    m_lock.watch(ElapsedMillisecond(), m_reader.chunksTaken(), false);
    return message;
}

}  // namespace shared_memory
