#include "MultipleWritersOneReaderSM.h"

#include <algorithm>
#include <utility>

#include "Log.h"
#include "SharedMemoryUtilities.h"

NORVO_LOG_SOURCE("src/SharedMemory/src/MultipleWritersOneReaderSM")

using VDIFrameworkCommon::LocalLock;

namespace {

constexpr unsigned int kLockWaitMs = 2000;
constexpr unsigned int kLockIsDeadAfterMs = 2001;

}  // namespace

MultipleWritersOneReaderSM::~MultipleWritersOneReaderSM() {
    if (isOpen()) MultipleWritersOneReaderSM::Close();
}

bool MultipleWritersOneReaderSM::writeMessage(const void* data, unsigned int length) {
    if (isOpen() && !LockWrite(kLockWaitMs)) return false;
    const bool written = SharedMemoryMacosx::writeMessage(data, length);
    UnlockWrite();
    return written;
}

bool MultipleWritersOneReaderSM::LockWrite(unsigned int timeout) {
    const unsigned int start = ElapsedMillisecond();
    do {
        Try result = Try::Again;
        while (result == Try::Again) result = tryLockWrite();
        if (result == Try::Locked) return true;
        shared_memory::utilities::sleep(1);
    } while (isOpen() && ElapsedMillisecond() - start < timeout);
    return false;
}

MultipleWritersOneReaderSM::Try MultipleWritersOneReaderSM::tryLockWrite() {
    LocalLock wait(m_waitLock);
    if (!header()) return Try::Busy;
    long count = IncrementWithLocking(&header()->writerLockCount);
    if (count >= 2) {
        DecrementWithLocking(&header()->writerLockCount);
        return Try::Busy;
    }
    if (count < 1) {
        // Locks released twice: counted back to 0 by the tries, or at once when it is far away.
        if (count < 0) header()->writerLockCount.compare_exchange_strong(count, 0);
        return Try::Again;
    }
    m_lockedAt = std::max(1L, static_cast<long>(ElapsedMillisecond()));
    ExcangeWithLocking(&header()->lockWord2, m_lockedAt);
    return Try::Locked;
}

void MultipleWritersOneReaderSM::UnlockWrite() {
    LocalLock wait(m_waitLock);
    long lockedAt = std::exchange(m_lockedAt, 0L);
    if (!header() || lockedAt == 0) return;
    if (header()->lockWord2.compare_exchange_strong(lockedAt, 0)) {
        DecrementWithLocking(&header()->writerLockCount);
    }
}

std::string MultipleWritersOneReaderSM::ReadData(unsigned int& length, unsigned int timeout) {
    std::string message = SharedMemoryMacosx::ReadData(length, timeout);
    LocalLock wait(m_waitLock);
    if (m_chunksSeen != chunksTaken()) {
        m_chunksSeen = chunksTaken();
        m_lastChunkSeenAt = ElapsedMillisecond();
    }
    if (message.empty() && header()) breakDeadLock();
    return message;
}

void MultipleWritersOneReaderSM::breakDeadLock() {
    const unsigned int now = ElapsedMillisecond();
    long lockedAt = header()->lockWord2;
    if (lockedAt < 1) {
        clearLeftoverCount(now);
        return;
    }
    m_hasLeftoverCount = false;
    const bool isQuiet = m_chunksSeen == 0 || now - m_lastChunkSeenAt >= kLockIsDeadAfterMs;
    if (now - static_cast<unsigned int>(lockedAt) < kLockIsDeadAfterMs || !isQuiet) return;
    if (header()->lockWord2.compare_exchange_strong(lockedAt, 0)) {
        NORVO_LOG(Notice, "Write lock of a dead writer released, stream: ", m_name);
        DecrementWithLocking(&header()->writerLockCount);
    }
}

void MultipleWritersOneReaderSM::clearLeftoverCount(unsigned int now) {
    long count = header()->writerLockCount;
    if (count < 1 || !m_hasLeftoverCount) {
        m_hasLeftoverCount = count >= 1;
        m_leftoverSince = now;
        return;
    }
    if (now - m_leftoverSince < kLockIsDeadAfterMs) return;
    if (header()->writerLockCount.compare_exchange_strong(count, 0)) {
        NORVO_LOG(Notice, "Write lock count left by dead writers cleared, stream: ", m_name);
        m_hasLeftoverCount = false;
    }
}
