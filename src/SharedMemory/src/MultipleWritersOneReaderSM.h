#pragma once

#include <string>

#include "SharedMemoryMacosx.h"
#include "WritersLock.h"

namespace shared_memory {

// A segment with several writer processes. A writer holds an inter-process lock for the duration of
// a message (WritersLock.h). The reader breaks the lock of a dead writer.
class MultipleWritersOneReaderSM : public SharedMemoryMacosx {
public:
    MultipleWritersOneReaderSM() = default;
    ~MultipleWritersOneReaderSM() override;

    // Takes the write lock, as WriteData does for each message. Not recursive. False when it could
    // not be taken within `timeout` ms.
    bool LockWrite(unsigned int timeout);
    // Releases the lock that this object took, unless the reader has broken it meanwhile.
    void UnlockWrite();

protected:
    // False, without a log line, when the lock could not be taken within 2000 ms.
    bool writeMessage(const void* data, unsigned int length) override
        NORVO_REQUIRES(m_operationLock);
    // A wait without a chunk also releases a lock that is 2001 ms old, unless chunks arrived in
    // that time.
    bool tryWriteMessage(const void* /*data*/, unsigned int /*length*/) override
        NORVO_REQUIRES(m_operationLock) {
        return false;
    }
    bool waitForMessage(unsigned int timeout) override NORVO_REQUIRES(m_operationLock);
    std::string takeMessage(unsigned int silence) override NORVO_REQUIRES(m_operationLock);

private:
    bool waitForLock(unsigned int timeout) NORVO_REQUIRES(m_operationLock);

    WritersLock m_lock NORVO_GUARDED_BY(m_operationLock){m_slot};
};

}  // namespace shared_memory
