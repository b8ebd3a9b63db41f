#include "StreamSegments.h"

#include <utility>

#include "Contained.h"

namespace VirtualChannelAgent {

using SegmentKind = AgentEnvironment::SegmentKind;
using VDIFrameworkCommon::LocalLock;

namespace {

constexpr std::chrono::milliseconds kRetryPeriod{1000};
constexpr char kNoStreamSegment[] = " NULL == pStream->ptrShm";
constexpr char kStreamFailed[] = "Failed open info stream from shared memory: ";

}  // namespace

constexpr SegmentSetup StreamSegments::kInfoOutput{"CreateInternalStream() - Broadcast: ", true,
                                                   true, kNoStreamSegment, kStreamFailed};
constexpr SegmentSetup StreamSegments::kReadStream{"CreateInternalStream() - Read: ", false, false,
                                                   kNoStreamSegment, kStreamFailed};
constexpr SegmentSetup StreamSegments::kWrittenStream{"CreateInternalStream() - Write: ", false,
                                                      true, kNoStreamSegment, kStreamFailed};
constexpr SegmentSetup StreamSegments::kReadMemory{"CreateInternalSharedMemory() - Read: ", true,
                                                   false, " NULL == ptrShm",
                                                   "Failed open shared memory: "};
constexpr SegmentSetup StreamSegments::kWrittenMemory{
    "CreateInternalSharedMemory() - Write: ", false, true, " NULL == ptrShm",
    "Failed create shared memory: "};

StreamSegments::~StreamSegments() { end(); }

StreamSegments::Segment StreamSegments::setUp(const std::string& name, unsigned int size,
                                              const SegmentSetup& setup) {
    AGENT_LOG(m_context, Info, setup.begun, name);
    const auto make = [this,
                       kind = setup.isBroadcast ? SegmentKind::Broadcast : SegmentKind::Plain] {
        return m_context.environment->makeSegment(kind);
    };
    auto segment = make();
    if (!segment) {
        AGENT_LOG(m_context, Error, setup.unavailable);
        return {};
    }
    if (setup.run(*segment, name, size)) return {std::move(segment), true};
    AGENT_LOG(m_context, Error, setup.failed, name, ", ",
              shared_memory::describe(segment->openError()), "; trying again every second");
    auto late = std::make_shared<LateSegment>(make, name, size, setup);
    tryLater(late);
    return {std::move(late), false};
}

void StreamSegments::tryLater(std::shared_ptr<LateSegment> segment) {
    LocalLock threadLock(m_threadMutex);
    if (m_ended) return;
    {
        LocalLock lock(m_mutex);
        m_late.push_back(std::move(segment));
    }
    startTrying();
}

void StreamSegments::catchUp() {
    LocalLock threadLock(m_threadMutex);
    if (!m_ended) startTrying();
}

void StreamSegments::startTrying() {
    {
        LocalLock lock(m_mutex);
        if (m_late.empty() || std::exchange(m_isTrying, true)) return;
    }
    if (m_thread.start([this] { RetryThread(); })) return;
    LocalLock lock(m_mutex);
    m_isTrying = false;
}

void StreamSegments::RetryThread() {
    while (!m_ended) {
        m_context.environment->wait(m_wake, kRetryPeriod);
        bool done = m_ended;
        if (!done) VDIFrameworkCommon::contained("Setting up segments", [&] { done = tryAll(); });
        if (done) return;
    }
}

bool StreamSegments::tryAll() {
    std::vector<std::shared_ptr<LateSegment>> late;
    {
        LocalLock lock(m_mutex);
        late = m_late;
    }
    std::vector<std::shared_ptr<LateSegment>> done;
    for (const auto& segment : late) {
        if (m_ended) return true;
        if (!segment->tryAgain()) continue;
        AGENT_LOG(m_context, Notice, "Shared memory is set up after all: ", segment->getName());
        done.push_back(segment);
    }
    LocalLock lock(m_mutex);
    for (const auto& segment : done) std::erase(m_late, segment);
    m_isTrying = !m_late.empty();
    return !m_isTrying;
}

void StreamSegments::end() {
    m_ended = true;
    m_wake.set();
    LocalLock lock(m_threadMutex);
    m_thread.join();
}

}  // namespace VirtualChannelAgent
