#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "AgentContext.h"
#include "AgentThread.h"
#include "Event.h"
#include "LateSegment.h"
#include "LocalMutex.h"

namespace VirtualChannelAgent {

// Sets up the segments of an agent. Failed ones are retried every second, by a thread that runs
// only while there are any. Thread-safe.
class StreamSegments {
public:
    static const SegmentSetup kInfoOutput;
    static const SegmentSetup kReadStream;
    static const SegmentSetup kWrittenStream;
    static const SegmentSetup kReadMemory;
    static const SegmentSetup kWrittenMemory;

    explicit StreamSegments(AgentContext& context) : m_context(context) {}
    // Calls end().
    ~StreamSegments();

    struct Segment {
        std::shared_ptr<shared_memory::SharedMemoryI> memory;  // empty when none is possible
        bool isSetUp = false;                                  // otherwise as soon as possible
    };
    Segment setUp(const std::string& name, unsigned int size, const SegmentSetup& setup);
    // Starts the thread if that was impossible when a segment failed.
    void catchUp();

    // Ends the thread, for good.
    void end();

private:
    void tryLater(std::shared_ptr<LateSegment> segment);
    void startTrying() NORVO_REQUIRES(m_threadMutex);
    void RetryThread();
    // Whether there is nothing left to try.
    bool tryAll();

    AgentContext& m_context;
    std::atomic<bool> m_ended{false};
    VDIFrameworkCommon::Event m_wake{true};
    VDIFrameworkCommon::LocalMutex m_threadMutex;  // before m_mutex
    AgentThread m_thread NORVO_GUARDED_BY(m_threadMutex);
    VDIFrameworkCommon::LocalMutex m_mutex;
    std::vector<std::shared_ptr<LateSegment>> m_late NORVO_GUARDED_BY(m_mutex);
    bool m_isTrying NORVO_GUARDED_BY(m_mutex) = false;
};

}  // namespace VirtualChannelAgent
