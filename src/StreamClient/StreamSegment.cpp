#include "StreamSegment.h"

#include <algorithm>

namespace NorvoStreamClient {

using VDIFrameworkCommon::LocalLock;

bool StreamSegment::write(const void* data, unsigned int length, Clock::time_point deadline) {
    LocalLock lock(m_writeMutex);
    m_deadline = deadline;
    return WriteData(data, length);
}

unsigned int StreamSegment::writeWait() const {
    using std::chrono::milliseconds;
    const auto left = std::chrono::ceil<milliseconds>(m_deadline.load() - Clock::now());
    const auto most = milliseconds(SharedMemoryMacosx::writeWait());
    return static_cast<unsigned int>(std::clamp(left, milliseconds(0), most).count());
}

bool StreamSegment::isDrained() {
    LocalLock lock(m_waitLock);
    const SharedMemoryHeader* const words = header();
    return !words || words->newMessageId.load() <= words->readMessageId.load();
}

}  // namespace NorvoStreamClient
