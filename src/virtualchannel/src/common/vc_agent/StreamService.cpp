#include "StreamService.h"

#include <utility>

NORVO_LOG_SOURCE("src/virtualchannel/src/common/vc_agent/VirtualChannelAgent")

namespace VirtualChannelAgent {

using lock_order::OrderedLock;
using SegmentKind = AgentEnvironment::SegmentKind;

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
    AGENT_LOG(Info, "CreateInternalSharedMemory()");
    if (!utils::IsStreamTypeValid(type)) return nullptr;
    const bool reads = type == StreamType::READ;
    AGENT_LOG(Info, "CreateInternalSharedMemory() - ", reads ? "Read: " : "Write: ", name);
    auto segment =
        m_context.environment->makeSegment(reads ? SegmentKind::Broadcast : SegmentKind::Plain);
    if (!segment) {
        AGENT_LOG(Error, " NULL == ptrShm");
    } else if (!(reads ? segment->Open(name, size) : segment->Create(name, size))) {
        AGENT_LOG(Error, "Failed ", reads ? "open" : "create", " shared memory: ", name);
        segment.reset();
    }
    return segment;
}

StreamPtr StreamService::CreateInternalStream(const std::string& name, StreamType type,
                                              unsigned int size, bool broadcast) {
    AGENT_LOG(Info, "CreateInternalStream()");
    return std::make_shared<Agent::Stream>(m_context, m_link, name, type, size,
                                           setUpSegment(name, type, size, broadcast));
}

std::shared_ptr<SharedMemoryI> StreamService::setUpSegment(const std::string& name, StreamType type,
                                                           unsigned int size, bool broadcast) {
    const bool reads = !broadcast && type == StreamType::READ;
    AGENT_LOG(Info, "CreateInternalStream() - ",
              broadcast ? "Broadcast: "
              : reads   ? "Read: "
                        : "Write: ",
              name);
    auto segment =
        m_context.environment->makeSegment(broadcast ? SegmentKind::Broadcast : SegmentKind::Plain);
    if (!segment) {
        AGENT_LOG(Error, " NULL == pStream->ptrShm");
    } else if (!(reads ? segment->Open(name, size) : segment->Create(name, size))) {
        AGENT_LOG(Error, "Failed open info stream from shared memory: ", name);
        segment.reset();
    }
    return segment;
}

bool StreamService::CreateStream(const std::string& name, unsigned int size, Requester requester) {
    AGENT_LOG(Info, "CreateStream for writing( ", shown(name), ", ", size, " )");
    if (name == m_context.infoOutputName) {
        AGENT_LOG(Warning, "It's only possible to subscribe to INFO Stream: ", name);
        return false;
    }
    const StreamPtr stream = findOrMake(name, StreamType::WRITE, size, requester);
    if (!stream) return false;
    announce(stream);
    AGENT_LOG(Info, "CreateStream for writing: ", name);
    return true;
}

bool StreamService::OpenStream(const std::string& name, unsigned int size, Requester requester) {
    AGENT_LOG(Info, "OpenStream for reading( ", shown(name), ", ", size, " )");
    const StreamPtr stream = findOrMake(name, StreamType::READ, size, requester);
    if (!stream) return false;
    announce(stream);
    AGENT_LOG(Info, "OpenStream for reading: ", name);
    return true;
}

StreamPtr StreamService::findOrMake(const std::string& name, StreamType type, unsigned int size,
                                    Requester requester) {
    OrderedLock lock(m_creationMutex, lock_order::creation);
    if (auto existing = FindInternalStream(name, type)) return existing;
    if (!admits(name, size, requester)) return nullptr;
    auto stream = CreateInternalStream(name, type, size, false);
    if (add(stream, requester)) return stream;
    AGENT_LOG(Error, "Stream creation failed");
    return nullptr;
}

bool StreamService::admits(const std::string& name, unsigned int size, Requester requester) {
    if (m_context.stopping) return false;
    // Who could write into the requests' segment would give orders in a local process's place.
    const bool isInfo = name == m_context.infoInputName || name == m_context.infoOutputName;
    const std::string_view refusal =
        isInfo ? "it is an INFO stream"
               : refusalOfStream(name, size, requester == Requester::FarSide, m_load);
    if (refusal.empty()) return true;
    AGENT_LOG(Warning, "Stream refused, ", refusal, ": ", shown(name), ", size ", size);
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
    AGENT_LOG(Info, "Tell the Agent on the other side about this stream");
    m_outgoing.SendMessageToChannelAboutStream(CTL_S_CREATE, stream->name(), stream->type(),
                                               stream->size());
}

StreamPtr StreamService::FindInternalStream(const std::string& name, StreamType /*type*/) {
    return m_streams.find(name);
}

bool StreamService::IsStreamRoutable(const std::string& name, StreamType farType) {
    AGENT_LOG(Trace, "Agent::IsStreamRoutable(", shown(name), ", ", farType, ")");
    if (!m_context.connected) {
        AGENT_LOG(Info, " NO, because agents are not connected");
        return false;
    }
    const StreamPtr stream = FindInternalStream(name, utils::GetMirroredSType(farType));
    if (!stream) {
        AGENT_LOG(Info, " NO, because stream hasn't been requested on this side");
    } else if (!stream->isRunning()) {
        AGENT_LOG(Info, " NO, other side hasn't requested the stream yet");
    } else {
        AGENT_LOG(Trace, " Agent::IsStreamRoutable(", shown(name), ", ", farType,
                  ") YES, it's being routed");
        return true;
    }
    return false;
}

void StreamService::StartStreamProcessor(const StreamPtr& stream, bool checkPeerSupport) {
    AGENT_LOG(Info, "StartStreamProcessor( ", stream->name(), " )");
    if (m_context.stopping) {
        AGENT_LOG(Info, "Agent is terminating. Won't start processing: ", stream->name());
        return;
    }
    if (!stream->start() && stream->isRunning()) {
        AGENT_LOG(Info, "Stream '", stream->name(), "' is already being processed. ");
    }
    if (checkPeerSupport && !m_peer.supports(stream->name())) {
        AGENT_LOG(Info, "peer do not support this stream:", stream->name(),
                  " Notify unsupported streams list");
        m_notifier.notifyInvalidStreams();
    }
}

void StreamService::ProcessRoutableMessage(const StreamPtr& stream, const char* data,
                                           std::size_t length) {
    AGENT_LOG(Trace, "Received message -> CTL_S_ROUTE -> ProcessRoutableMessage( ",
              stream ? stream->name() : std::string(), " )");
    if (!stream) return;
    if (stream->type() != StreamType::WRITE || stream->name() == m_context.infoOutputName) {
        AGENT_LOG(Warning, "Stream takes no data of the far side: ", stream->name());
        return;
    }
    stream->enqueue(data, length);
}

void StreamService::closeAll() {
    OrderedLock lock(m_creationMutex, lock_order::creation);
    const auto streams = m_streams.close();
    AGENT_LOG(Info, "Signal processing threads to stop");
    for (const auto& stream : streams) stream->requestStop();
    for (const auto& stream : streams) stream->close();
}

}  // namespace VirtualChannelAgent
