#include "AgentStream.h"

#include <utility>

#include "Contained.h"

namespace VirtualChannelAgent {

using lock_order::OrderedLock;
using VDIFrameworkCommon::contained;
using VDIFrameworkCommon::MemoryBlock;

namespace {

constexpr std::chrono::milliseconds kRetryPause{5};
constexpr std::chrono::milliseconds kDeliveryPause{1};

// Background bulk data: it must not delay calls and meetings.
bool isLowPriority(const std::string& streamName) {
    return streamName.find("LogCollection") != std::string::npos ||
           streamName.find("upgrade") != std::string::npos;
}

// What a local process must not miss, however many notifications it gets.
bool isConnectionChange(std::string_view notification) {
    return notification == "ChannelUp" || notification == "ChannelDown";
}

}  // namespace

Agent::Stream::Stream(AgentContext& context, ChannelLink& link, std::string name, StreamType type,
                      unsigned int size, std::shared_ptr<shared_memory::SharedMemoryI> segment)
    : m_context(context),
      m_link(link),
      m_name(std::move(name)),
      m_type(type),
      m_size(size),
      m_isInfoOutput(m_name == context.infoOutputName),
      m_lowPriority(isLowPriority(m_name)),
      m_segment(std::move(segment)) {}

Agent::Stream::~Stream() { close(); }

bool Agent::Stream::start() {
    OrderedLock lock(m_serviceMutex, lock_order::service);
    if (m_closed || m_running) return false;
    m_running = true;
    if (begin()) return true;
    m_running = false;
    AGENT_LOG(m_context, Error, "Cannot start processing: ", m_name);
    return false;
}

bool Agent::Stream::begin() {
    if (m_type == StreamType::WRITE) return m_writer.start([this] { WriterProcessingThread(); });
    return m_type != StreamType::READ || !m_segment || m_segment->subscribeObserver(this);
}

// A hand-over to the writer's thread would cost more than the copy into the segment, which is made
// in either case.
bool Agent::Stream::pass(const char* data, std::size_t length) {
    const StreamUse::Passage passage(use);
    if (!passage.isOpen()) return false;
    const auto write = [&] { return m_running && writeAtOnce(data, length); };
    if (m_queue.bypass(write)) return true;
    // Of a short message, or a small part of a long one, a copy needs less memory.
    auto memory = length < MemoryBlock::kSmallestKept ? MemoryBlock() : m_link.takeReceivedMemory();
    if (memory && memory.capacity() <= 2 * length) {
        enqueue(StreamMessage(std::move(memory), {data, length}));
    } else {
        enqueue(std::string(data, length));
    }
    return true;
}

bool Agent::Stream::writeAtOnce(const char* data, std::size_t length) {
    if (!m_segment || !m_segment->TryWriteData(data, static_cast<unsigned int>(length)))
        return false;
    logDelivered(length);
    return true;
}

void Agent::Stream::logDelivered(std::size_t length) {
    AGENT_LOG(m_context, Trace, length, " bytes delivered to address: ", m_name);
}

void Agent::Stream::enqueue(StreamMessage message) {
    const auto mayGo = [this](const StreamMessage& one) {
        return !m_isInfoOutput || !isConnectionChange(one.bytes());
    };
    message.countIn(m_context.queuedBytes);
    const bool isCrowded = m_context.queuedBytes > kMaxQueuedBytesInAll;
    const std::size_t most = isCrowded ? kMaxQueuedBytesWhenCrowded : kMaxQueuedBytes;
    if (isCrowded && message.size() > most) {
        AGENT_LOG_REPEATED(m_context, m_dropped, Notice,
                           "Too much waits for local processes, a message of ", message.size(),
                           " bytes is dropped, stream name: ", m_name);
    } else if (m_queue.push(std::move(message), mayGo, most) > 0) {
        AGENT_LOG_REPEATED(
            m_context, m_dropped, Notice,
            "Sending buffer full, removing the oldest message to make space for a new one, "
            "stream name: ",
            m_name);
    }
}

void Agent::Stream::requestStop() {
    {
        OrderedLock lock(m_serviceMutex, lock_order::service);
        m_closed = true;
        m_running = false;
    }
    m_queue.wake();
    m_link.wakeSenders();
}

void Agent::Stream::waitUntilDelivered(std::chrono::milliseconds limit) const {
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + limit;
    while (m_isRead && hasUndelivered() && Clock::now() < deadline)
        m_context.environment->pause(kDeliveryPause);
}

void Agent::Stream::close() {
    requestStop();  // first: close() waits for the segment's read thread, which may wait to send
    // Closing the segment wakes a writer that waits for its reader.
    if (m_segment && !m_isSegmentClosed.exchange(true)) {
        contained("Leaving a segment", [this] { m_segment->unsubscribeAllObservers(); });
        contained("Closing a segment", [this] { m_segment->Close(); });
    }
    OrderedLock lock(m_serviceMutex, lock_order::service);
    m_writer.join();
}

void Agent::Stream::onNewMessageReceived(std::string message,
                                         shared_memory::SharedMemoryI* /*source*/) {
    if (!m_running || m_context.stopping || message.empty()) return;
    const StreamUse::Passage passage(use);
    m_link.sendRoutedData(m_name, m_type, m_size, message, m_lowPriority, m_running);
}

std::shared_ptr<VDIFrameworkCommon::StandIn> Agent::Stream::standIn() {
    return m_running ? m_link.standIn() : nullptr;
}

bool Agent::Stream::takeAtOnce(const std::string& message) {
    if (!m_running || m_context.stopping) return true;
    const StreamUse::Passage passage(use);
    return m_link.sendRoutedDataAtOnce(m_name, m_type, m_size, message, m_lowPriority);
}

void Agent::Stream::WriterProcessingThread() {
    AGENT_LOG(m_context, Info, "ProcessingThread( ", m_name, " )");
    const auto running = [this] { return m_running.load(); };
    while (running()) {
        auto message = m_queue.pop(running);
        if (!message) continue;
        contained("Delivering a message", [&] { deliver(*message); });
    }
    AGENT_LOG(m_context, Info, "Thread processing '", m_name, "' exiting");
}

void Agent::Stream::deliver(const StreamMessage& message) {
    const std::string_view bytes = message.bytes();
    const auto length = static_cast<unsigned int>(bytes.size());
    for (bool failed = false; m_running; failed = true) {
        const bool isWritten = m_segment && m_segment->WriteData(bytes.data(), length);
        m_isRead.store(isWritten, std::memory_order_relaxed);
        if (isWritten) {
            logDelivered(length);
            if (failed) m_undelivered.settled();
            return;
        }
        if (m_isInfoOutput) {
            AGENT_LOG_REPEATED(m_context, m_undelivered, Notice,
                               "Bytes not delivered in stream: ", m_name,
                               ", those bytes will not be written again.");
            return;
        }
        m_context.environment->pause(kRetryPause);
        AGENT_LOG_REPEATED(m_context, m_undelivered, Notice,
                           "Bytes not delivered in stream: ", m_name);
    }
}

}  // namespace VirtualChannelAgent
