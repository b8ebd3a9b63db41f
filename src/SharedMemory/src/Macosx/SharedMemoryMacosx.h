#pragma once

#include <string>

#include "SegmentMapping.h"
#include "SharedMemoryBase.h"

// The plain segment over POSIX shared memory, on every system. The object is called: effective user
// ID, "CWVDI_", "MTVDI_" or "DEFVDI_" by client type, segment name. It is for its owner only, and
// stays in the system when it is closed.
class SharedMemoryMacosx : public SharedMemoryBase {
public:
    SharedMemoryMacosx() = default;
    ~SharedMemoryMacosx() override;

protected:
    unsigned int ElapsedMillisecond() override;
    long IncrementWithLocking(SharedWord* word) override;
    void DecrementWithLocking(SharedWord* word) override;
    long ExcangeWithLocking(SharedWord* target, long value) override;
    bool CreateOrOpen(const std::string& name, unsigned int size, bool bTryToCreate) override;
    bool CloseSharedMemory() override;

private:
    shared_memory::SegmentMapping m_mapping;
};
