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

// Sets up the segments of an agent. One that cannot be set up is tried again every second, by a
// thread that lives only as long as there is one. Thread-safe.
class StreamSegments {
public:
    static const SegmentSetup kInfoOutput;
    static const SegmentSetup kReadStream;
    static const SegmentSetup kWrittenStream;
    static const SegmentSetup kReadMemory;
    static const SegmentSetup kWrittenMemory;

    explicit StreamSegments(AgentContext& context) : m_context(context) {}
    // As end().
    ~StreamSegments();

    struct Segment {
        std::shared_ptr<shared_memory::SharedMemoryI> memory;  // empty when there cannot be one
        bool isSetUp = false;  // otherwise it will be, as soon as that is possible
    };
    Segment setUp(const std::string& name, unsigned int size, const SegmentSetup& setup);

    // Ends the thread, for good.
    void end();

private:
    void tryLater(std::shared_ptr<LateSegment> segment);
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
