#pragma once

#include <string>

#include "SharedMemoryMacosx.h"

// A segment whose every reader sees every message. A message is one chunk. Each reader remembers
// the last message ID it has seen; offset 8 counts the readers that are ready for the next message,
// offset 24 those inside a read.
//
// A reader adds 1 at offset 8 when it opens and when it has taken a message; the writer remembers
// the count, zeroes it with each message, and writes the next one when as many have taken it. To
// keep a reader that opens from being counted as one that has taken the message, a reader also adds
// 1 to the chunk index when it opens, and one that closes takes itself out of both words again. The
// writer sets the index to 1 with each message, so the chunk index is 1 plus the readers that came
// minus those that left since the message was written. An end that does not do so is counted by
// offset 8 alone.
//
// A reader that is gone without closing costs one wait: 2000 ms after its last message the writer
// goes on without those that have not taken it.
class SharedMemoryBroadcast : public SharedMemoryMacosx {
public:
    ~SharedMemoryBroadcast() override;

    // Waits at most 20 ms for a message, whatever `timeout` says.
    std::string ReadData(unsigned int& length, unsigned int timeout) override;
    using SharedMemoryBase::ReadData;

    // One try to get the slot for the next message.
    bool LockWrite();
    // Tries every millisecond, for at most `timeout` ms.
    bool WaitLockWrite(unsigned int timeout);
    void UnlockWrite();
    // Marks this process as being inside a read. False when the segment is not open.
    bool LockRead();
    void UnlockRead();

protected:
    // Refuses what is longer than the capacity; fails when the slot could not be had in 3000 ms.
    bool writeMessage(const void* data, unsigned int length) override
        NORVO_REQUIRES(m_operationLock);
    // Whether there is a message newer than the last one seen; `update` makes it the last one seen.
    bool NewMessage(bool update) override;
    bool isUnread() override { return NewMessage(true); }
    bool receive(std::string& message, unsigned int silence) override NORVO_REQUIRES(m_waitLock);
    void startWriting() override;
    void startReading() override;
    void leave() override;

    // Puts a message into the slot, which the caller has locked for writing, and unlocks it.
    bool publish(const void* data, unsigned int length);

private:
    bool isGranted(unsigned int now);
    bool isTakenByAll();
    // Writing although not every reader has taken the last message; not into a reader's copy,
    // unless that reader has not moved for a while.
    bool isGrantedLate(unsigned int now, bool readerInside);
    bool takeSeenMessage(std::string& message);
    bool copyMessage(std::string& message);
    void countAsOneThatCame();
    void countAsReady();
    void stayCounted();

    // Reader: the last message ID seen, and the one after which it was counted at offset 8.
    long m_lastSeenId = 0;
    long m_countedAfterId = 0;
    // The last look found the count to be 0 although this reader is counted.
    bool m_isCountLost = false;

    // Writer
    unsigned int m_lastWriteTime = 0;
    unsigned int m_readersAtLastWrite = 0;
    unsigned int m_createdAt = 0;
    unsigned int m_settleMs = 0;
    // Since when a late write has been kept waiting by a reader inside a read.
    bool m_isHeldUp = false;
    unsigned int m_heldUpSince = 0;
};
