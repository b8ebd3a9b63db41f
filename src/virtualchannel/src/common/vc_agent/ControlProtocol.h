#pragma once

#include <array>

#include "AgentConnection.h"
#include "AgentContext.h"
#include "LockOrder.h"
#include "PeerCapabilities.h"
#include "StreamService.h"

namespace VirtualChannelAgent {

// Parses the peer's messages and carries them out: the handshake, creation and data of streams,
// errors and log flushes. Called on the thread that delivers messages, one at a time. Invalid bytes
// do no more harm than a log line.
class ControlProtocol {
public:
    ControlProtocol(AgentContext& context, PeerCapabilities& peer, StreamService& streams,
                    AgentConnection& connection)
        : m_context(context), m_peer(peer), m_streams(streams), m_connection(connection) {}

    // `data` may be null and is valid during the call only.
    void receive(const void* data, unsigned int length) NORVO_TAKES_TRANSITION;

private:
    struct Received {
        const VCMessage& message;
        StreamDetails stream;  // as the peer describes it, if the message names one
    };
    struct Handler;
    static const Handler* handlerOf(unsigned char type);

    void dispatch(const VCMessage& message) NORVO_TAKES_TRANSITION;
    void rejectType(unsigned char type);
    void dumpBroken(const void* data, unsigned int length);

    void typeNotSupported(const Received& received);
    void connect(const Received& received);
    void connectReady(const Received& received) NORVO_TAKES_TRANSITION;
    void connected(const Received& received) NORVO_TAKES_TRANSITION;
    void createStream(const Received& received) NORVO_TAKES_CREATION;
    void streamCreated(const Received& received) NORVO_TAKES_CREATION;
    void routeData(const Received& received) NORVO_TAKES_CREATION;
    void streamError(const Received& received);

    // True when another agent is active, or when this one is ending and must not answer.
    bool ignoresHandshake(const char* messageName);
    // False when the agents are not connected after it.
    bool takeHandshake(const VCMessage& message) NORVO_TAKES_TRANSITION;
    void takeVersions(const VCMessage& message) NORVO_TAKES_LEAF;
    void takeStreamList(const VCMessage& message) NORVO_TAKES_STREAMS;
    VCMessage capabilities(MessageTypeEnum type) const;

    StreamPtr findOpposite(const StreamDetails& stream) NORVO_TAKES_STREAMS;
    // Records whether both ends have the same direction; notifies local processes of a change.
    void noteDirection(Agent::Stream& stream, StreamType peers) NORVO_TAKES_STREAMS;
    StreamPtr recreate(const StreamDetails& wanted) NORVO_TAKES_CREATION;
    // False when the stream has just been freed.
    bool route(const StreamPtr& stream, const Received& received) NORVO_TAKES_STREAMS;
    void sendError(const StreamDetails& stream) NORVO_TAKES_LEAF;

    AgentContext& m_context;
    PeerCapabilities& m_peer;
    StreamService& m_streams;
    AgentConnection& m_connection;
    KLT::kltlogger::LogRepeats m_broken;
    KLT::kltlogger::LogRepeats m_dumps;
    KLT::kltlogger::LogRepeats m_rejected;
    KLT::kltlogger::LogRepeats m_unknown;
    KLT::kltlogger::LogRepeats m_absent;
    KLT::kltlogger::LogRepeats m_empty;
    KLT::kltlogger::LogRepeats m_conflicts;
    KLT::kltlogger::LogRepeats m_unsupported;
    KLT::kltlogger::LogRepeats m_peersErrors;
    KLT::kltlogger::LogRepeats m_notCreated;
    KLT::kltlogger::LogRepeats m_notRequested;
    KLT::kltlogger::LogRepeats m_recreated;
    KLT::kltlogger::LogRepeats m_notRecreated;
    std::array<KLT::kltlogger::LogRepeats, CTL_LOGFLUSH + 1> m_incomplete;  // by message type
};

}  // namespace VirtualChannelAgent
