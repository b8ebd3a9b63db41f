#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "AgentContext.h"
#include "AgentThread.h"
#include "BoundedQueue.h"
#include "ChannelLink.h"
#include "LockOrder.h"
#include "SharedMemoryI.h"
#include "SpareStrings.h"
#include "StreamRules.h"
#include "StreamType.h"
#include "StreamUse.h"
#include "VirtualChannelAgent.h"

namespace VirtualChannelAgent {

// One stream of an agent: a segment shared with a local process, and what moves data between it and
// the channel. Made idle; runs from start() to close(), through any number of connections: running
// also says that the far side has confirmed it. Thread-safe.
class Agent::Stream : public shared_memory::SharedMemoryObserverI {
public:
    // `type` is the agent's own part. `segment` is set up; empty when that has failed: the stream
    // is then known to both sides, but nothing comes through. `context` and `link` outlive it.
    Stream(AgentContext& context, ChannelLink& link, std::string name, StreamType type,
           unsigned int size, std::shared_ptr<shared_memory::SharedMemoryI> segment);
    // As close().
    ~Stream() override;

    const std::string& name() const { return m_name; }
    StreamType type() const { return m_type; }
    unsigned int size() const { return m_size; }
    StreamDetails details() const { return {m_name, m_type, m_size}; }
    bool isRunning() const { return m_running; }

    // WRITE: starts the thread that writes queued messages into the segment. READ: has the
    // segment's messages sent to the far side. False when the stream was running already, has been
    // closed, or could not be started.
    bool start() NORVO_TAKES_SERVICE;

    // Queues one message, or a copy of it, for the local process. The oldest are dropped when more
    // wait than StreamRules.h allows; of the notifications, those of a connection's changes last.
    void enqueue(const char* data, std::size_t length) NORVO_TAKES_LEAF;
    void enqueue(std::string message) NORVO_TAKES_LEAF;

    // How many messages have been queued so far, and how many of them wait no longer.
    std::uint64_t queued() const NORVO_TAKES_LEAF { return m_queue.pushed(); }
    std::uint64_t passed() const NORVO_TAKES_LEAF { return m_queue.left(); }

    // Makes the stream stop soon, for good, without waiting for it.
    void requestStop() NORVO_TAKES_SERVICE;
    // Stops it for good: nothing of it runs any more afterwards, and the segment is closed. Not on
    // a thread of this stream or its segment.
    void close() NORVO_TAKES_SERVICE;

    // A message of the local process, on the segment's read thread.
    void onNewMessageReceived(std::string message, shared_memory::SharedMemoryI* source) override;

    // What says how long the stream must be kept (StreamService.h).
    StreamUse use;

    // Whether a message waits for the local process or is being handed to it.
    bool hasUndelivered() const NORVO_TAKES_LEAF { return m_delivering || queued() != passed(); }

    // The far side has said that its end has this one's direction: nothing can come through.
    std::atomic<bool> conflictsWithPeer{false};

    // When the far side was last asked to create its end, in wall-clock milliseconds.
    std::atomic<std::uint64_t> lastCreateRequestMs{0};

private:
    bool begin() NORVO_REQUIRES(m_serviceMutex);
    void WriterProcessingThread() NORVO_TAKES_LEAF;
    void deliver(const std::string& message);

    AgentContext& m_context;
    ChannelLink& m_link;
    const std::string m_name;
    const StreamType m_type;
    const unsigned int m_size;
    const bool m_isInfoOutput;
    const bool m_lowPriority;
    const std::shared_ptr<shared_memory::SharedMemoryI> m_segment;
    std::atomic<bool> m_isSegmentClosed{false};
    VDIFrameworkCommon::BoundedQueue<std::string> m_queue{{kMaxQueuedMessages, kMaxQueuedBytes}};
    SpareStrings m_spares;
    std::atomic<bool> m_running{false};
    std::atomic<bool> m_delivering{false};

    KLT::kltlogger::LogRepeats m_dropped;
    KLT::kltlogger::LogRepeats m_undelivered;

    VDIFrameworkCommon::LocalMutex m_serviceMutex;
    bool m_closed NORVO_GUARDED_BY(m_serviceMutex) = false;
    AgentThread m_writer NORVO_GUARDED_BY(m_serviceMutex);
};

}  // namespace VirtualChannelAgent
