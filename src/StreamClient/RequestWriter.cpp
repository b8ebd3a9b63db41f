#include "RequestWriter.h"

#include <thread>

#include "SharedMemoryBroadcast.h"

namespace NorvoStreamClient {

using VDIFrameworkCommon::LocalLock;

namespace {

// A writer that joins the ones before it: it leaves the message IDs as they are, where a reset
// would make the agent read the last request again.
class RequestSegment : public SharedMemoryBroadcast {
    void startWriting() override {}
};

}  // namespace

bool RequestWriter::send(const std::string& text, Clock::time_point deadline) {
    constexpr auto kPause = std::chrono::milliseconds(2);
    LocalLock sending(m_sendMutex);
    RequestSegment segment;
    if (!segment.Create(m_name, kInfoCapacity)) return false;
    while (!m_cancelled) {
        if (segment.LockWrite()) {
            // Given back for WriteData to take: whoever comes between is waited for there.
            segment.UnlockWrite();
            return segment.WriteData(text.data(), static_cast<unsigned int>(text.size()));
        }
        if (Clock::now() >= deadline) return false;
        std::this_thread::sleep_for(kPause);
    }
    return false;
}

void RequestWriter::cancel() { m_cancelled = true; }

}  // namespace NorvoStreamClient
