#include "StreamService.h"

#include <list>
#include <utility>

#include "Contained.h"
#include "MessageAssembler.h"

namespace VirtualChannelAgent {

using lock_order::OrderedLock;
using VDIFrameworkCommon::contained;

namespace {

// For what local processes are told last: as long as it takes some slow ones among them.
constexpr std::chrono::milliseconds kFarewellLimit{250};

}  // namespace

void StreamService::beginInfoOutput(unsigned int size) {
    StreamPtr stream;
    {
        OrderedLock lock(m_creationMutex, lock_order::creation);
        stream = CreateInternalStream(m_context.infoOutputName, StreamType::WRITE, size, true);
        add(stream, Requester::LocalProcess);
    }
    StartStreamProcessor(stream, false);
}

void StreamService::catchUp() {
    m_segments.catchUp();
    const StreamPtr info = m_streams.find(m_context.infoOutputName);
    if (info && !info->isRunning()) StartStreamProcessor(info, false);
}

StreamSegments::Segment StreamService::CreateInternalSharedMemory(const std::string& name,
                                                                  StreamType type,
                                                                  unsigned int size) {
    AGENT_LOG(m_context, Info, "CreateInternalSharedMemory()");
    if (!utils::IsStreamTypeValid(type)) return {};
    return m_segments.setUp(
        name, size,
        type == StreamType::READ ? StreamSegments::kReadMemory : StreamSegments::kWrittenMemory);
}

StreamPtr StreamService::CreateInternalStream(const std::string& name, StreamType type,
                                              unsigned int size, bool broadcast) {
    AGENT_LOG(m_context, Info, "CreateInternalStream()");
    const auto& setup = broadcast                  ? StreamSegments::kInfoOutput
                        : type == StreamType::READ ? StreamSegments::kReadStream
                                                   : StreamSegments::kWrittenStream;
    return m_context.makeStream({name, type, size}, m_segments.setUp(name, size, setup).memory);
}

bool StreamService::CreateStream(const std::string& name, unsigned int size, Requester requester) {
    AGENT_LOG(m_context, Info, "CreateStream for writing( ", shown(name), ", ", size, " )");
    if (name == m_context.infoOutputName) {
        AGENT_LOG(m_context, Warning, "It's only possible to subscribe to INFO Stream: ", name);
        return false;
    }
    const StreamPtr stream = findOrMake(name, StreamType::WRITE, size, requester);
    if (!stream) return false;
    announce(stream);
    AGENT_LOG(m_context, Info, "CreateStream for writing: ", name);
    return true;
}

bool StreamService::OpenStream(const std::string& name, unsigned int size, Requester requester) {
    AGENT_LOG(m_context, Info, "OpenStream for reading( ", shown(name), ", ", size, " )");
    const StreamPtr stream = findOrMake(name, StreamType::READ, size, requester);
    if (!stream) return false;
    announce(stream);
    AGENT_LOG(m_context, Info, "OpenStream for reading: ", name);
    return true;
}

StreamPtr StreamService::findOrMake(const std::string& name, StreamType type, unsigned int size,
                                    Requester requester) {
    OrderedLock lock(m_creationMutex, lock_order::creation);
    StreamPtr stream = FindInternalStream(name, type);
    if (stream) {
        if (requester == Requester::LocalProcess) tellDirection(*stream, type);
    } else {
        stream = make({name, type, size}, requester);
    }
    if (stream) noteRequest(*stream, requester);
    return stream;
}

StreamPtr StreamService::make(const StreamDetails& wanted, Requester requester) {
    if (!admits(wanted, requester)) return nullptr;
    if (requester == Requester::FarSide) m_context.environment->addPeerSegment(wanted.name);
    auto stream = CreateInternalStream(wanted.name, wanted.type, wanted.size, false);
    if (add(stream, requester)) return stream;
    AGENT_LOG(m_context, Error, "Stream creation failed");
    return nullptr;
}

void StreamService::noteRequest(Agent::Stream& stream, Requester requester) {
    stream.use.askedFor(requester);
    if (requester == Requester::FarSide) return;
    if (m_context.environment->isSegmentInUseElsewhere(stream.name())) stream.use.seenOpen();
}

void StreamService::tellDirection(Agent::Stream& stream, StreamType wanted) {
    if (stream.type() == wanted) return;
    AGENT_LOG(m_context, Warning, "Stream is in use in the other direction: ", stream.name(),
              ", a local process can only ",
              stream.type() == StreamType::WRITE ? "read from it" : "write to it");
    if (m_context.connected && stream.isRunning()) m_context.notifyStream(stream);
}

bool StreamService::admits(const StreamDetails& wanted, Requester requester) {
    if (m_context.stopping) return false;
    // With access to the request segment, the peer could make requests as a local process.
    const bool isInfo =
        wanted.name == m_context.infoInputName || wanted.name == m_context.infoOutputName;
    const auto refusalWith = [&](const StreamLoad& load) -> std::string_view {
        return isInfo ? "it is an INFO stream"
                      : refusalOfStream(wanted.name, wanted.size, requester == Requester::FarSide,
                                        load);
    };
    std::string_view refusal = refusalWith(m_load);
    // The peer's requests come while unused streams are looked for anyway, and on a thread of the
    // host's, which must not wait for their end.
    const bool mayMakeRoom = requester == Requester::LocalProcess && refusalWith({}).empty();
    if (!refusal.empty() && mayMakeRoom) {
        freeUnusedOnes();
        refusal = refusalWith(m_load);
    }
    if (refusal.empty()) return true;
    AGENT_LOG_REPEATED(m_context, m_refused, Warning, "Stream refused, ", refusal, ": ",
                       shown(wanted.name), ", size ", wanted.size);
    return false;
}

bool StreamService::add(const StreamPtr& stream, Requester requester) {
    if (!m_streams.insert(stream)) return false;
    m_load.add(stream->size(), requester == Requester::FarSide);
    if (requester == Requester::FarSide) m_madeForPeer.insert(stream->name());
    return true;
}

void StreamService::announce(const StreamPtr& stream) {
    AGENT_LOG(m_context, Info, "Tell the Agent on the other side about this stream");
    m_context.SendMessageToChannelAboutStream(CTL_S_CREATE, stream->details());
}

StreamPtr StreamService::FindInternalStream(const std::string& name, StreamType /*type*/) {
    return m_streams.find(name);
}

bool StreamService::IsStreamRoutable(const Agent::Stream& stream) const {
    AGENT_LOG(m_context, Trace, "Agent::IsStreamRoutable(", stream.name(), ", ", stream.type(),
              ")");
    if (!m_context.connected) {
        AGENT_LOG_REPEATED(m_context, m_notRoutable, Info,
                           " NO, because agents are not connected: ", stream.name());
    } else if (!stream.isRunning()) {
        AGENT_LOG_REPEATED(m_context, m_notRoutable, Info,
                           " NO, other side hasn't requested the stream yet: ", stream.name());
    } else {
        AGENT_LOG(m_context, Trace, " Agent::IsStreamRoutable(", stream.name(), ", ", stream.type(),
                  ") YES, it's being routed");
        return true;
    }
    return false;
}

void StreamService::StartStreamProcessor(const StreamPtr& stream, bool checkPeerSupport) {
    AGENT_LOG(m_context, Info, "StartStreamProcessor( ", stream->name(), " )");
    if (m_context.stopping) {
        AGENT_LOG(m_context, Info,
                  "Agent is terminating. Won't start processing: ", stream->name());
        return;
    }
    if (!stream->start() && stream->isRunning()) {
        AGENT_LOG(m_context, Info, "Stream '", stream->name(), "' is already being processed. ");
    }
    if (checkPeerSupport && !m_context.peerSupports(stream->name())) {
        AGENT_LOG(m_context, Info, "peer do not support this stream:", stream->name(),
                  " Notify unsupported streams list");
        m_context.notifyInvalidStreams();
    }
}

bool StreamService::ProcessRoutableMessage(const StreamPtr& stream, const char* data,
                                           std::size_t length) {
    AGENT_LOG(m_context, Trace, "Received message -> CTL_S_ROUTE -> ProcessRoutableMessage( ",
              stream ? stream->name() : std::string(), " )");
    if (!stream) return true;
    if (stream->type() != StreamType::WRITE || stream->name() == m_context.infoOutputName) {
        AGENT_LOG_REPEATED(m_context, m_notTaken, Warning,
                           "Stream takes no data of the far side: ", stream->name());
        return true;
    }
    if (length > shared_memory::MessageAssembler::kLongest) {
        AGENT_LOG_REPEATED(m_context, m_tooLong, Warning, "Message too long for a segment, ",
                           length, " bytes: ", stream->name());
        return true;
    }
    if (!IsStreamRoutable(*stream)) {
        AGENT_LOG(m_context, Trace, "The data waits until it is: ", stream->name());
    }
    return stream->pass(data, length);
}

// What is noted or passes through the stream meanwhile keeps it.
bool StreamService::tryGiveUp(Agent::Stream& stream, std::uint64_t nowMs) {
    if (stream.name() == m_context.infoOutputName) return false;
    const std::uint64_t idleMs = stream.use.idleMs(nowMs);
    if (idleMs < kFreeAfterMs || stream.hasUndelivered()) return false;
    // Checked first: the process may have opened the segment after it requested the stream.
    if (m_context.environment->isSegmentInUseElsewhere(stream.name())) {
        stream.use.seenOpen();
        stream.use.note();
        return false;
    }
    if (stream.use.isInDoubt() && idleMs < kFreeInDoubtAfterMs) return false;
    // The segment's read thread may have in hand what a process wrote before it closed the segment.
    if (stream.use.isKept() || stream.use.unusedMs(nowMs) < kSettledAfterMs) return false;
    return stream.use.giveUp();
}

void StreamService::freeUnused() {
    OrderedLock lock(m_creationMutex, lock_order::creation);
    if (!m_context.stopping) freeUnusedOnes();
}

void StreamService::freeUnusedOnes() {
    const std::uint64_t now = m_context.environment->nowMs();
    StreamTable::Streams unused;
    for (const auto& stream : m_streams.snapshot()) {
        if (!tryGiveUp(*stream, now)) continue;
        m_streams.move(stream->name(), unused);
        AGENT_LOG(m_context, Info, "Nobody uses the stream any more: ", stream->name());
    }
    closeTogether(unused);
}

// Closed in parallel, as each may have to wait for a lock held by a stopped process; one after the
// other where there are no threads or no memory.
void StreamService::closeTogether(const StreamTable::Streams& streams) {
    for (const auto& [name, stream] : streams) stream->requestStop();
    std::list<AgentThread> threads;
    for (const auto& [name, stream] : streams) {
        const bool forPeer = m_madeForPeer.erase(name) > 0;
        m_load.remove(stream->size(), forPeer);
        const bool removes = forPeer && !stream->use.isKept();
        const auto close = [this, closed = stream, removes] {
            closed->close();
            if (removes) m_context.environment->removePeerSegment(closed->name());
        };
        bool isStarted = false;
        contained("Starting to close a stream",
                  [&] { isStarted = threads.emplace_back().start(close); });
        if (!isStarted) contained("Closing a stream", close);
    }
}

void StreamService::closeAll() {
    m_segments.end();
    // Local processes learn from the last notifications that the agent is gone.
    StreamTable::Streams notifications;
    {
        OrderedLock lock(m_creationMutex, lock_order::creation);
        auto streams = m_streams.close();
        AGENT_LOG(m_context, Info, "Signal processing threads to stop");
        notifications.insert(streams.extract(m_context.infoOutputName));
        closeTogether(streams);
    }
    for (const auto& [name, stream] : notifications) stream->waitUntilDelivered(kFarewellLimit);
    OrderedLock lock(m_creationMutex, lock_order::creation);
    closeTogether(notifications);
}

}  // namespace VirtualChannelAgent
