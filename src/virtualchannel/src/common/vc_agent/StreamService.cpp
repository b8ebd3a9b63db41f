#include "StreamService.h"

#include <utility>

NORVO_LOG_SOURCE("src/virtualchannel/src/common/vc_agent/VirtualChannelAgent")

namespace VirtualChannelAgent {

using lock_order::OrderedLock;
using SegmentKind = AgentEnvironment::SegmentKind;

// How a segment is set up, and what the log says of it.
struct StreamService::SegmentSetup {
    const char* begun;
    SegmentKind kind;
    bool creates;  // as its writer; otherwise opens it as a reader
    const char* unavailable;
    const char* failed;
};

namespace {

constexpr char kNoStreamSegment[] = " NULL == pStream->ptrShm";
constexpr char kStreamFailed[] = "Failed open info stream from shared memory: ";

}  // namespace

constexpr StreamService::SegmentSetup StreamService::kInfoOutput{
    "CreateInternalStream() - Broadcast: ", SegmentKind::Broadcast, true, kNoStreamSegment,
    kStreamFailed};
constexpr StreamService::SegmentSetup StreamService::kReadStream{
    "CreateInternalStream() - Read: ", SegmentKind::Plain, false, kNoStreamSegment, kStreamFailed};
constexpr StreamService::SegmentSetup StreamService::kWrittenStream{
    "CreateInternalStream() - Write: ", SegmentKind::Plain, true, kNoStreamSegment, kStreamFailed};
constexpr StreamService::SegmentSetup StreamService::kReadMemory{
    "CreateInternalSharedMemory() - Read: ", SegmentKind::Broadcast, false, " NULL == ptrShm",
    "Failed open shared memory: "};
constexpr StreamService::SegmentSetup StreamService::kWrittenMemory{
    "CreateInternalSharedMemory() - Write: ", SegmentKind::Plain, true, " NULL == ptrShm",
    "Failed create shared memory: "};

void StreamService::beginInfoOutput(unsigned int size) {
    StreamPtr stream;
    {
        OrderedLock lock(m_creationMutex, lock_order::creation);
        stream = CreateInternalStream(m_context.infoOutputName, StreamType::WRITE, size, true);
        add(stream, Requester::LocalProcess);
    }
    StartStreamProcessor(stream, false);
}

std::shared_ptr<SharedMemoryI> StreamService::CreateInternalSharedMemory(const std::string& name,
                                                                         StreamType type,
                                                                         unsigned int size) {
    AGENT_LOG(m_context, Info, "CreateInternalSharedMemory()");
    if (!utils::IsStreamTypeValid(type)) return nullptr;
    return setUpSegment(name, size, type == StreamType::READ ? kReadMemory : kWrittenMemory);
}

StreamPtr StreamService::CreateInternalStream(const std::string& name, StreamType type,
                                              unsigned int size, bool broadcast) {
    AGENT_LOG(m_context, Info, "CreateInternalStream()");
    const auto& setup = broadcast                  ? kInfoOutput
                        : type == StreamType::READ ? kReadStream
                                                   : kWrittenStream;
    return m_context.makeStream({name, type, size}, setUpSegment(name, size, setup));
}

std::shared_ptr<SharedMemoryI> StreamService::setUpSegment(const std::string& name,
                                                           unsigned int size,
                                                           const SegmentSetup& setup) {
    AGENT_LOG(m_context, Info, setup.begun, name);
    auto segment = m_context.environment->makeSegment(setup.kind);
    if (!segment) {
        AGENT_LOG(m_context, Error, setup.unavailable);
    } else if (!(setup.creates ? segment->Create(name, size) : segment->Open(name, size))) {
        AGENT_LOG(m_context, Error, setup.failed, name);
        segment.reset();
    }
    return segment;
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
    if (auto existing = FindInternalStream(name, type)) {
        if (requester == Requester::LocalProcess) tellDirection(*existing, type);
        return existing;
    }
    if (!admits(name, size, requester)) return nullptr;
    auto stream = CreateInternalStream(name, type, size, false);
    if (add(stream, requester)) return stream;
    AGENT_LOG(m_context, Error, "Stream creation failed");
    return nullptr;
}

void StreamService::tellDirection(const Agent::Stream& stream, StreamType wanted) {
    if (stream.type() == wanted) return;
    AGENT_LOG(m_context, Warning, "Stream is in use in the other direction: ", stream.name(),
              ", a local process can only ",
              stream.type() == StreamType::WRITE ? "read from it" : "write to it");
    if (m_context.connected && stream.isRunning()) m_context.notifyStream(stream);
}

bool StreamService::admits(const std::string& name, unsigned int size, Requester requester) {
    if (m_context.stopping) return false;
    // Who could write into the requests' segment would give orders in a local process's place.
    const bool isInfo = name == m_context.infoInputName || name == m_context.infoOutputName;
    const std::string_view refusal =
        isInfo ? "it is an INFO stream"
               : refusalOfStream(name, size, requester == Requester::FarSide, m_load);
    if (refusal.empty()) return true;
    AGENT_LOG(m_context, Warning, "Stream refused, ", refusal, ": ", shown(name), ", size ", size);
    return false;
}

bool StreamService::add(const StreamPtr& stream, Requester requester) {
    if (!m_streams.insert(stream)) return false;
    m_load.streams++;
    m_load.totalSize += stream->size();
    if (requester == Requester::FarSide) {
        m_load.peerStreams++;
        m_load.peerTotalSize += stream->size();
    }
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
        AGENT_LOG(m_context, Info, " NO, because agents are not connected");
    } else if (!stream.isRunning()) {
        AGENT_LOG(m_context, Info, " NO, other side hasn't requested the stream yet");
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
    if (stream->start()) {
        m_context.streamsBegun++;
    } else if (stream->isRunning()) {
        AGENT_LOG(m_context, Info, "Stream '", stream->name(), "' is already being processed. ");
    }
    if (checkPeerSupport && !m_context.peerSupports(stream->name())) {
        AGENT_LOG(m_context, Info, "peer do not support this stream:", stream->name(),
                  " Notify unsupported streams list");
        m_context.notifyInvalidStreams();
    }
}

void StreamService::ProcessRoutableMessage(const StreamPtr& stream, const char* data,
                                           std::size_t length) {
    AGENT_LOG(m_context, Trace, "Received message -> CTL_S_ROUTE -> ProcessRoutableMessage( ",
              stream ? stream->name() : std::string(), " )");
    if (!stream) return;
    if (stream->type() != StreamType::WRITE || stream->name() == m_context.infoOutputName) {
        AGENT_LOG(m_context, Warning, "Stream takes no data of the far side: ", stream->name());
        return;
    }
    if (!IsStreamRoutable(*stream)) {
        AGENT_LOG(m_context, Info, "The data waits until it is: ", stream->name());
    }
    stream->enqueue(data, length);
}

void StreamService::closeAll() {
    OrderedLock lock(m_creationMutex, lock_order::creation);
    const auto streams = m_streams.close();
    AGENT_LOG(m_context, Info, "Signal processing threads to stop");
    for (const auto& stream : streams) stream->requestStop();
    for (const auto& stream : streams) stream->close();
}

}  // namespace VirtualChannelAgent
