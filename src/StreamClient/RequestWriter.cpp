#include "RequestWriter.h"

#include <algorithm>
#include <thread>

#include "InfoSegments.h"
#include "Log.h"

NORVO_LOG_SOURCE("src/StreamClient/RequestWriter")

namespace NorvoStreamClient {

using VDIFrameworkCommon::kInfoSegmentSize;
using VDIFrameworkCommon::LocalLock;

namespace {

constexpr auto kFirstPause = std::chrono::microseconds(50);
constexpr auto kLongestPause = std::chrono::milliseconds(2);
// A reader that has not taken a message by then never will: it is gone, or the message was never
// finished.
constexpr auto kLongestHoldUp = std::chrono::seconds(2);

}  // namespace

bool RequestSegment::mayPlace() {
    LocalLock lock(m_operationLock);
    if (!isOpen()) return false;
    if (header()->lockWord2.load() > 0) return true;
    const auto now = Clock::now();
    if (const long id = header()->newMessageId.load(); id != m_heldUpId) {
        m_heldUpId = id;
        m_heldUpSince = now;
    }
    return now - m_heldUpSince > kLongestHoldUp;
}

bool RequestSegment::isTaken() {
    LocalLock lock(m_operationLock);
    if (!isOpen()) return false;
    // In this order: the index is never ahead of the count for a reader that opens or closes.
    const long ready = header()->lockWord2.load();
    const long came = static_cast<long>(header()->chunkIndex.load()) - 1;
    return ready - came > 0;
}

bool RequestSegment::place(const std::string& text) {
    LocalLock lock(m_operationLock);
    if (!isOpen() || text.size() > capacity()) return false;
    m_heldUpId = -1;
    // Whatever a writer that died has left there: the turn is this process's.
    ExcangeWithLocking(&header()->writerLockCount, 1);
    return publish(text.data(), static_cast<unsigned int>(text.size()));
}

template <class Test>
bool RequestWriter::waitFor(Clock::time_point deadline, Test test) {
    Clock::duration pause = kFirstPause;
    while (!m_cancelled) {
        if (test()) return true;
        const auto now = Clock::now();
        if (now >= deadline) return false;
        std::this_thread::sleep_for(std::min(pause, deadline - now));
        pause = std::min<Clock::duration>(pause * 2, kLongestPause);
    }
    return false;
}

bool RequestWriter::join() {
    if (m_segment) return true;
    auto segment = std::make_unique<RequestSegment>();
    const std::string turn = kSegmentObjectPrefix + m_name + "_writers";
    if (!m_turn.create(turn.c_str()) || !segment->Create(m_name, kInfoSegmentSize)) return false;
    m_segment = std::move(segment);
    return true;
}

bool RequestWriter::sendInTurn(const std::string& text, Clock::time_point deadline) {
    RequestSegment& segment = *m_segment;
    return waitFor(deadline, [&segment] { return segment.mayPlace(); }) && segment.place(text) &&
           waitFor(deadline, [&segment] { return segment.isTaken(); });
}

bool RequestWriter::send(const std::string& text, Clock::time_point deadline) {
    LocalLock lock(m_mutex);
    if (m_cancelled || !join()) return false;
    while (!m_turn.lock()) {
        if (m_cancelled || Clock::now() >= deadline) return false;
    }
    const bool taken = sendInTurn(text, deadline);
    m_turn.unlock();
    NORVO_LOG(Trace, taken ? "request taken: " : "request not taken: ", text);
    return taken;
}

}  // namespace NorvoStreamClient
