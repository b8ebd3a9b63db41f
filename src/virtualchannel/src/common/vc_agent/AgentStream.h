#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "AgentContext.h"
#include "AgentThread.h"
#include "BoundedQueue.h"
#include "ChannelLink.h"
#include "LockOrder.h"
#include "SharedMemoryI.h"
#include "StreamMessage.h"
#include "StreamRules.h"
#include "StreamType.h"
#include "StreamUse.h"
#include "VirtualChannelAgent.h"

namespace VirtualChannelAgent {

// One stream of an agent: a segment shared with a local process, and the transfer of data between
// it and the channel. Initially idle; runs from start() to close(), across any number of
// connections. A running stream has been confirmed by the peer. Thread-safe.
class Agent::Stream : public shared_memory::SharedMemoryObserverI {
public:
    // `type` is the agent's own direction. `segment` is set up, or empty if that failed: then both
    // sides know the stream, but it carries nothing. `context` and `link` outlive it.
    Stream(AgentContext& context, ChannelLink& link, std::string name, StreamType type,
           unsigned int size, std::shared_ptr<shared_memory::SharedMemoryI> segment);
    // Calls close().
    ~Stream() override;

    const std::string& name() const { return m_name; }
    StreamType type() const { return m_type; }
    unsigned int size() const { return m_size; }
    StreamDetails details() const { return {m_name, m_type, m_size}; }
    bool isRunning() const { return m_running; }

    // WRITE: starts the thread that writes queued messages into the segment. READ: has the
    // segment's messages sent to the peer. False when the stream was running already, has been
    // closed, or could not be started.
    bool start() NORVO_TAKES_SERVICE;

    // Queues one message for the local process. The oldest are dropped when more wait than
    // StreamRules.h allows; among notifications, connection changes are dropped last.
    void enqueue(std::string message) NORVO_TAKES_LEAF {
        enqueue(StreamMessage(std::move(message)));
    }
    // The same for data from the peer, inside its delivery. It is written to the segment at once
    // when that takes no waiting and no earlier message is still under way. False, and the data is
    // not taken, when the stream has been given up.
    bool pass(const char* data, std::size_t length) NORVO_TAKES_LEAF;

    // How many messages have been queued so far, and how many of them have left the queue.
    std::uint64_t queued() const NORVO_TAKES_LEAF { return m_queue.pushed(); }
    std::uint64_t passed() const NORVO_TAKES_LEAF { return m_queue.left(); }

    // Makes the stream stop for good, without waiting for it.
    void requestStop() NORVO_TAKES_SERVICE;
    // Stops it for good: its threads have ended on return, and the segment is closed. Not on a
    // thread of this stream or its segment.
    void close() NORVO_TAKES_SERVICE;

    // A message of the local process, on the segment's read thread.
    void onNewMessageReceived(std::string message, shared_memory::SharedMemoryI* source) override;
    // The same on the channel's worker, which may wait for it in the read thread's place.
    std::shared_ptr<VDIFrameworkCommon::StandIn> standIn() override;
    bool takeAtOnce(const std::string& message) override;

    // Determines how long the stream must be kept (StreamService.h).
    StreamUse use;

    // Whether a message for the local process waits or is being written.
    bool hasUndelivered() const NORVO_TAKES_LEAF { return !m_queue.isIdle(); }

    // Waits for at most `limit` while such messages reach a local process.
    void waitUntilDelivered(std::chrono::milliseconds limit) const NORVO_TAKES_LEAF;

    // The peer's end has the same direction as this one, so nothing can be transferred.
    std::atomic<bool> conflictsWithPeer{false};

    // The position among all notifications of the last one of this stream that still holds.
    static constexpr std::uint64_t kNotAnnounced = ~std::uint64_t{0};
    std::atomic<std::uint64_t> announcedAt{kNotAnnounced};

    // When the peer was last asked to create its end, in wall-clock milliseconds.
    std::atomic<std::uint64_t> lastCreateRequestMs{0};

private:
    bool begin() NORVO_REQUIRES(m_serviceMutex);
    void WriterProcessingThread() NORVO_TAKES_LEAF;
    bool writeAtOnce(const char* data, std::size_t length);
    void enqueue(StreamMessage message) NORVO_TAKES_LEAF;
    void deliver(const StreamMessage& message);
    void logDelivered(std::size_t length);

    AgentContext& m_context;
    ChannelLink& m_link;
    const std::string m_name;
    const StreamType m_type;
    const unsigned int m_size;
    const bool m_isInfoOutput;
    const bool m_lowPriority;
    const std::shared_ptr<shared_memory::SharedMemoryI> m_segment;
    std::atomic<bool> m_isSegmentClosed{false};
    VDIFrameworkCommon::BoundedQueue<StreamMessage> m_queue{{kMaxQueuedMessages, kMaxQueuedBytes}};
    std::atomic<bool> m_running{false};
    std::atomic<bool> m_isRead{false};  // as the last delivery found it

    KLT::kltlogger::LogRepeats m_dropped;
    KLT::kltlogger::LogRepeats m_undelivered;

    VDIFrameworkCommon::LocalMutex m_serviceMutex;
    bool m_closed NORVO_GUARDED_BY(m_serviceMutex) = false;
    AgentThread m_writer NORVO_GUARDED_BY(m_serviceMutex);
};

}  // namespace VirtualChannelAgent
