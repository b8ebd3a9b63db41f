#pragma once

#include <atomic>

#include "AgentView.h"
#include "LocalMutex.h"
#include "SharedMemoryMacosx.h"

namespace NorvoStreamClient {

// A plain segment whose writer says how long it will wait, and can tell whether the reader has
// taken everything.
class StreamSegment : public SharedMemoryMacosx {
public:
    ~StreamSegment() override = default;

    // WriteData that gives up at `deadline`, or when a chunk has waited 2000 ms for the reader.
    bool write(const void* data, unsigned int length, Clock::time_point deadline);

    // True while no chunk waits; also when the segment is closed.
    bool isDrained();

protected:
    unsigned int writeWait() const override;

private:
    VDIFrameworkCommon::LocalMutex m_writeMutex;
    // Of the write under way.
    std::atomic<Clock::time_point> m_deadline{Clock::time_point::max()};
};

}  // namespace NorvoStreamClient
