#pragma once

#include <string>

#include "SharedMemoryMacosx.h"

// A segment with several writer processes. A writer holds an inter-process spin lock for the length
// of a message: the writer lock count, with the time it was taken in lock word 2. The reader breaks
// the lock of a writer that died.
class MultipleWritersOneReaderSM : public SharedMemoryMacosx {
public:
    ~MultipleWritersOneReaderSM() override;

    using SharedMemoryBase::ReadData;
    // An empty read also releases a lock that is 2001 ms old, unless chunks still came in that
    // time.
    std::string ReadData(unsigned int& length, unsigned int timeout) override;

    // The write lock by itself, as WriteData takes it for each message. Not recursive. False when
    // it could not be had within `timeout` ms.
    bool LockWrite(unsigned int timeout);
    // Releases the lock that this object took, unless the reader has broken it meanwhile.
    void UnlockWrite();

protected:
    // False, without a log line, when the lock could not be had within 2000 ms.
    bool writeMessage(const void* data, unsigned int length) override
        NORVO_REQUIRES(m_operationLock);

private:
    enum class Try { Locked, Again, Busy };

    Try tryLockWrite();
    void breakDeadLock() NORVO_REQUIRES(m_waitLock);
    void clearLeftoverCount(unsigned int now) NORVO_REQUIRES(m_waitLock);

    // What this writer put into the lock word; 0 when it does not hold the lock.
    long m_lockedAt NORVO_GUARDED_BY(m_waitLock) = 0;

    // The reader's memory of the last chunks: how many had come, and when it last saw more.
    unsigned long m_chunksSeen NORVO_GUARDED_BY(m_waitLock) = 0;
    unsigned int m_lastChunkSeenAt NORVO_GUARDED_BY(m_waitLock) = 0;
    // A count that stays above 0 without a time is what writers that died while taking the lock
    // have left.
    bool m_hasLeftoverCount NORVO_GUARDED_BY(m_waitLock) = false;
    unsigned int m_leftoverSince NORVO_GUARDED_BY(m_waitLock) = 0;
};
