#include "ControlProtocol.h"

#include <algorithm>
#include <charconv>

#include "AgentStream.h"
#include "StreamRules.h"

namespace VirtualChannelAgent {

// How one type of message is handled.
struct ControlProtocol::Handler {
    unsigned char type;
    const char* announcement;  // log line on receipt; empty when the handler logs its own
    const char* incomplete;    // log line when a stream's name, type or size is missing; empty when
                               // the message is not about a stream
    void (*run)(ControlProtocol& self, const Received& received);
};

const ControlProtocol::Handler* ControlProtocol::handlerOf(unsigned char type) {
    using Self = ControlProtocol;
    static constexpr Handler kHandlers[] = {
        {CTL_NOOP, "Received CTL_NOOP", "", [](Self&, const Received&) {}},
        {CTL_MESSAGE_TYPE_NOTSUPPORTED, "Received CTL_MESSAGE_TYPE_NOTSUPPORTED", "",
         [](Self& self, const Received& r) { self.typeNotSupported(r); }},
        {CTL_CONNECT,
         "Received CTL_CONNECT. Reply with CTL_CONNECT_READY and supported stream list", "",
         [](Self& self, const Received& r) { self.connect(r); }},
        {CTL_CONNECT_READY, "Received CTL_CONNECT_READY and peer supported streams list", "",
         [](Self& self, const Received& r) { self.connectReady(r); }},
        {CTL_CONNECTED, "Received CTL_CONNECTED and peer supported streams info", "",
         [](Self& self, const Received& r) { self.connected(r); }},
        {CTL_DISCONNECT, "Received CTL_DISCONNECT", "",
         [](Self& self, const Received&) { self.m_connection.setDisconnected(); }},
        {CTL_S_CREATE, "", "CTL_S_CREATE without stream details. Broken protocol!",
         [](Self& self, const Received& r) { self.createStream(r); }},
        {CTL_S_CREATED, "", "Stream details not provided. Broken protocol!",
         [](Self& self, const Received& r) { self.streamCreated(r); }},
        {CTL_S_ROUTE, "Received CTL_S_ROUTE",
         "Message routing not possible - destination not specified",
         [](Self& self, const Received& r) { self.routeData(r); }},
        {CTL_S_ERROR, "",
         "Remote agent communicated a Stream related error, without specifying the Stream",
         [](Self& self, const Received& r) { self.streamError(r); }},
        {CTL_LOGFLUSH, "Received CTL_LOGFLUSH.", "",
         [](Self&, const Received&) { VirtualChannelLogger_flush(); }},
    };
    const auto found = std::find_if(std::begin(kHandlers), std::end(kHandlers),
                                    [=](const Handler& each) { return each.type == type; });
    return found == std::end(kHandlers) ? nullptr : found;
}

void ControlProtocol::receive(const void* data, unsigned int length) {
    AGENT_LOG(m_context, Trace, "OnVirtualChannelReceiveData(", data, ",", length, ")");
    if (!data) {
        AGENT_LOG(m_context, Warning,
                  "NULL message received. Probably pre-TPL3307 protocol on the other side "
                  "[DE18836]");
        return;
    }
    VCMessage message;
    if (!message.parseInPlace(data, length)) {
        AGENT_LOG_REPEATED(m_context, m_broken, Warning, "Message broken and cannot be processed");
        dumpBroken(data, length);
    } else if (!message.isMessageTypeSupported()) {
        rejectType(message.rawMessageType());
    } else {
        dispatch(message);
    }
}

void ControlProtocol::dumpBroken(const void* data, unsigned int length) {
    if (!KLT::kltlogger::isEnabled(KLT::kltlogger::Info)) return;
    constexpr unsigned int kDumped = 128;
    const auto* const bytes = static_cast<const unsigned char*>(data);
    std::string dump;
    for (unsigned int i = 0; i < std::min(length, kDumped); ++i) {
        char digits[2];
        dump.append(digits, std::to_chars(digits, digits + 2, bytes[i], 16).ptr).push_back(' ');
    }
    AGENT_LOG_REPEATED(m_context, m_dumps, Info, "HEX DATA ( ", length, " bytes  ): ", dump);
}

void ControlProtocol::rejectType(unsigned char type) {
    AGENT_LOG_REPEATED(m_context, m_rejected, Warning, "Message is not supported, type: ", type);
    VCMessage reply;
    reply.setMessageType(CTL_MESSAGE_TYPE_NOTSUPPORTED);
    reply.setUnsupportedMessageType(type);
    m_context.SendMessageToChannel(reply);
}

void ControlProtocol::dispatch(const VCMessage& message) {
    const Handler* const handler = handlerOf(message.rawMessageType());
    if (!handler) {
        AGENT_LOG_REPEATED(m_context, m_unknown, Warning, "Unknown ctrlOp code received '",
                           message.rawMessageType(), "'");
        return;
    }
    if (*handler->announcement) {
        NORVO_LOG_AT(
            message.rawMessageType() == CTL_S_ROUTE ? KLT::kltlogger::Trace : KLT::kltlogger::Info,
            m_context.logPrefix, handler->announcement);
    }
    Received received{message, {}};
    if (*handler->incomplete) {
        if (!message.hasStreamName() || !message.hasStreamType() || !message.hasStreamSize()) {
            AGENT_LOG_REPEATED(m_context, m_incomplete[handler->type], Warning,
                               handler->incomplete);
            return;
        }
        received.stream = {message.getStreamName(),
                           utils::intToSType(static_cast<int>(message.getStreamType())),
                           message.getStreamSize()};
    }
    handler->run(*this, received);
}

void ControlProtocol::typeNotSupported(const Received& received) {
    if (!received.message.hasUnsupportedMessageType()) return;
    AGENT_LOG_REPEATED(
        m_context, m_unsupported, Warning,
        "Message type not supported by peer, type: ", received.message.getUnsupportedMessageType());
}

void ControlProtocol::createStream(const Received& received) {
    const StreamDetails& wanted = received.stream;
    AGENT_LOG(m_context, Info, "Received CTL_S_CREATE - ", shown(wanted.name));
    if (const StreamPtr stream = findOpposite(wanted)) {
        noteDirection(*stream, wanted.type);
        AGENT_LOG(m_context, Info,
                  "Opposite Stream exists locally. Confirm to remote agent, and start processing "
                  "it.");
        m_context.SendMessageToChannelAboutStream(CTL_S_CREATED, stream->details());
        m_streams.StartStreamProcessor(stream, true);
        return;
    }
    AGENT_LOG(m_context, Info,
              "Opposite Stream does not exist locally. Re-Create, Confirm to remote agent, and "
              "start processing it.");
    const bool done =
        wanted.type == StreamType::WRITE
            ? m_streams.OpenStream(wanted.name, wanted.size, Requester::FarSide)
            : wanted.type == StreamType::READ &&
                  m_streams.CreateStream(wanted.name, wanted.size, Requester::FarSide);
    if (!done) AGENT_LOG_REPEATED(m_context, m_notCreated, Warning, "Failed to Create Stream.");
}

void ControlProtocol::streamCreated(const Received& received) {
    AGENT_LOG(m_context, Info, "Received CTL_S_CREATED: ", shown(received.stream.name));
    if (const StreamPtr stream = findOpposite(received.stream)) {
        noteDirection(*stream, received.stream.type);
        AGENT_LOG(m_context, Info, "Stream exists locally. Start processing it.");
        m_streams.StartStreamProcessor(stream, true);
        return;
    }
    AGENT_LOG_REPEATED(m_context, m_absent, Warning, "Stream '", shown(received.stream.name),
                       "' doesn't exist locally.");
    sendError(received.stream);
}

void ControlProtocol::routeData(const Received& received) {
    StreamPtr stream = findOpposite(received.stream);
    if (stream && route(stream, received)) return;
    AGENT_LOG_REPEATED(
        m_context, m_notRequested, Info,
        " NO, because stream hasn't been requested on this side: ", shown(received.stream.name));
    stream = recreate(received.stream);
    if (stream) route(stream, received);
}

StreamPtr ControlProtocol::recreate(const StreamDetails& wanted) {
    if (m_context.stopping) return nullptr;
    AGENT_LOG_REPEATED(
        m_context, m_recreated, Info,
        "Received CTL_S_ROUTE, there was no receiveing stream found, so recreating it.");
    StreamPtr stream;
    if (!m_streams.CreateStream(wanted.name, wanted.size, Requester::FarSide)) {
        AGENT_LOG_REPEATED(m_context, m_notRecreated, Warning,
                           "Stream not found, and could no be recreated!.");
    } else if (stream = findOpposite(wanted); !stream) {
        AGENT_LOG_REPEATED(
            m_context, m_notRecreated, Error,
            "Stream not found, and succesfully recreated, but still unable to route msgs.");
    }
    if (stream) {
        m_notRequested.settled();
        m_recreated.settled();
    } else {
        sendError(wanted);
    }
    return stream;
}

bool ControlProtocol::route(const StreamPtr& stream, const Received& received) {
    char* data = nullptr;
    const unsigned int length =
        received.message.hasRouteData() ? received.message.getRouteData(&data) : 0;
    if (length == 0 || !data) {
        AGENT_LOG_REPEATED(m_context, m_empty, Warning, "Route msssage is invalid.");
        return true;
    }
    return m_streams.ProcessRoutableMessage(stream, data, length);
}

void ControlProtocol::streamError(const Received& received) {
    AGENT_LOG_REPEATED(m_context, m_peersErrors, Warning, "Remote agent communicated an error in ",
                       shown(received.stream.name));
}

StreamPtr ControlProtocol::findOpposite(const StreamDetails& stream) {
    const StreamType ours = utils::GetMirroredSType(stream.type);
    StreamPtr found = m_streams.FindInternalStream(stream.name, ours);
    // One that has just been given up is as good as gone: a request waits until it is.
    if (found && !found->use.note()) found.reset();
    if (found && utils::IsStreamTypeValid(ours) && found->type() != ours) {
        AGENT_LOG_REPEATED(m_context, m_conflicts, Warning,
                           "Stream has the same direction at both ends: ", stream.name);
    }
    return found;
}

void ControlProtocol::noteDirection(Agent::Stream& stream, StreamType peers) {
    if (stream.name() == m_context.infoOutputName) return;
    const bool conflicts = utils::IsStreamTypeValid(peers) && stream.type() == peers;
    if (stream.conflictsWithPeer.exchange(conflicts) == conflicts) return;
    stream.announcedAt = Agent::Stream::kNotAnnounced;
    if (m_context.connected && stream.isRunning()) m_context.notifyStream(stream);
}

void ControlProtocol::sendError(const StreamDetails& stream) {
    // No agent has a stream with so long a name, and up to 1001 such messages may be queued.
    if (stream.name.size() > kMaxStreamNameLength) return;
    m_context.SendMessageToChannelAboutStream(
        CTL_S_ERROR, {stream.name, utils::GetMirroredSType(stream.type), stream.size});
}

}  // namespace VirtualChannelAgent
