#pragma once

#include <string>

#include "SharedMemoryBase.h"

namespace shared_memory {

// The plain segment over POSIX shared memory, on every system (SegmentMapping.h has the object).
class SharedMemoryMacosx : public SharedMemoryBase {
public:
    SharedMemoryMacosx() = default;
    ~SharedMemoryMacosx() override;

protected:
    unsigned int ElapsedMillisecond() override;
    long IncrementWithLocking(SharedWord* word) override;
    void DecrementWithLocking(SharedWord* word) override;
    long ExcangeWithLocking(SharedWord* target, long value) override;
    bool CreateOrOpen(const std::string& name, unsigned int size, bool bTryToCreate) override
        NORVO_REQUIRES(m_operationLock);
    bool CloseSharedMemory() override NORVO_REQUIRES(m_operationLock);
};

}  // namespace shared_memory
