#pragma once

#include "SharedMemoryMacosx.h"

namespace NorvoStreamClient {

// A plain segment that can tell its writer whether the reader has taken everything.
class StreamSegment : public SharedMemoryMacosx {
public:
    // True while no chunk waits; also when the segment is closed.
    bool isDrained() {
        VDIFrameworkCommon::LocalLock lock(m_waitLock);
        const SharedMemoryHeader* const words = header();
        return !words || words->newMessageId.load() <= words->readMessageId.load();
    }
};

}  // namespace NorvoStreamClient
