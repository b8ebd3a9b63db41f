#pragma once

#include <string>

#include "BroadcastReader.h"
#include "BroadcastWriter.h"
#include "LogRepeats.h"
#include "SharedMemoryMacosx.h"

namespace shared_memory {

// A segment in which every reader sees every message. A message is one chunk. BroadcastWriter.h and
// BroadcastCounts.h describe how the writer waits for its readers.
class SharedMemoryBroadcast : public SharedMemoryMacosx {
public:
    SharedMemoryBroadcast() = default;
    ~SharedMemoryBroadcast() override;

    // Waits at most 20 ms for a message, whatever `timeout` says.
    std::string ReadData(unsigned int& length, unsigned int timeout) override;
    using SharedMemoryBase::ReadData;

    // One attempt to lock the slot for the next message.
    bool LockWrite();
    // Tries for at most `timeout` ms.
    bool WaitLockWrite(unsigned int timeout);
    void UnlockWrite();
    // Marks this process as being inside a read. False when the segment is not open.
    bool LockRead();
    void UnlockRead();

protected:
    // Refuses a message longer than the capacity; fails when the slot could not be locked within
    // 3000 ms.
    bool writeMessage(const void* data, unsigned int length) override
        NORVO_REQUIRES(m_operationLock);
    bool tryWriteMessage(const void* /*data*/, unsigned int /*length*/) override
        NORVO_REQUIRES(m_operationLock) {
        return false;
    }
    bool isPlain() const override { return false; }
    bool waitForMessage(unsigned int timeout) override NORVO_REQUIRES(m_operationLock);
    std::string takeMessage(unsigned int silence) override NORVO_REQUIRES(m_operationLock);
    std::string takeMessageNow() override NORVO_REQUIRES(m_operationLock);
    bool NewMessage(bool update) override NORVO_REQUIRES(m_operationLock);
    SlotEnd& end(Mode mode) override NORVO_REQUIRES(m_operationLock);

private:
    bool waitForTurn(unsigned int timeout) NORVO_REQUIRES(m_operationLock);

    BroadcastReader m_broadcastReader NORVO_GUARDED_BY(m_operationLock){m_slot};
    BroadcastWriter m_broadcastWriter NORVO_GUARDED_BY(m_operationLock){m_slot};
    KLT::kltlogger::LogRepeats m_tooLong;
    KLT::kltlogger::LogRepeats m_notTaken;
    KLT::kltlogger::LogRepeats m_nobodyListens;
};

}  // namespace shared_memory
