#include "AgentConnection.h"

#include <cassert>

#include "AgentStream.h"
#include "Contained.h"

namespace VirtualChannelAgent {

using lock_order::OrderedLock;
using VDIFrameworkCommon::contained;
using Cause = ConnectionState::Cause;
using Phase = ConnectionState::Phase;

namespace {

// For CTL_DISCONNECT and the stream data queued before it. That takes a channel a few tens of
// milliseconds, unless its host takes nothing at all.
constexpr std::chrono::milliseconds kGoodbyeLimit{250};

VCMessage bareMessage(MessageTypeEnum type) {
    VCMessage message;
    message.setMessageType(type);
    return message;
}

}  // namespace

bool AgentConnection::setConnected() {
    OrderedLock lock(m_transitionMutex, lock_order::transition);
    if (m_context.stopping) return false;
    m_context.catchUp();
    const auto& transition = m_state.next(Cause::Handshake);
    AGENT_LOG(m_context, Notice, "Virtual Channel Agents are connected");
    m_notifier.notifyCurrentProcessId(true);
    m_notifier.notifyChannelVersion();
    m_notifier.notifyEnviromentType();
    AGENT_LOG(m_context, Info, "Agents are connected: ", m_state.phase() == Phase::Connected,
              " ,Agents were previously connected: ", m_state.phase() == Phase::Lost);
    if (transition.announcesChannelUp) m_notifier.notifyEvent("ChannelUp");
    if (transition.reannouncesStreams) announceAgain();
    const bool isConnected = !transition.beginsOrEndsThreads || begin(transition);
    assert(IsConsistent());
    return isConnected;
}

void AgentConnection::announceAgain() {
    for (const auto& stream : m_context.streams()) {
        if (stream->name() == m_context.infoOutputName) continue;
        AGENT_LOG(m_context, Info,
                  "Tell the Agent on the other side to reconnect to this stream: ", stream->name());
        m_outgoing.SendMessageToChannelAboutStream(CTL_S_CREATE, stream->details(),
                                                   OutgoingMessages::Pace::Paced);
    }
}

bool AgentConnection::begin(const ConnectionState::Transition& transition) {
    AGENT_LOG(m_context, Info,
              "Virtual Channel Agents is loaded by process id: ", utils::GetProcessId());
    if (auto* const channel = m_context.channel()) channel->onAgentStateChange(true);
    if (!m_context.environment->markActive()) {
        AGENT_LOG(m_context, Warning,
                  m_context.environment->hasOtherActiveAgent()
                      ? "Another virtual channel agent is marked as the active one."
                      : "This virtual channel agent could not be marked as the active one.",
                  m_context.activeAgent());
    }
    m_state.enter(transition);
    m_context.letStreamsSend(true);
    if (m_outgoing.start() && m_checker.start()) return true;
    AGENT_LOG(m_context, Error, "Cannot start the threads of a connection.");
    leave(Goodbye::Unsaid);
    return false;
}

void AgentConnection::sendWhileConnected(const VCMessage& message) {
    OrderedLock lock(m_transitionMutex, lock_order::transition);
    if (m_context.connected && !m_context.stopping) m_context.SendMessageToChannel(message);
}

void AgentConnection::setDisconnected() {
    OrderedLock lock(m_transitionMutex, lock_order::transition);
    leave(Goodbye::Unsaid);
}

// Once the phase has changed, streams send no more data to the channel, so later messages to the
// peer or the channel wait behind a bounded backlog only. A step that fails, for example for lack
// of memory, does not keep the others from being taken.
void AgentConnection::leave(Goodbye goodbye) {
    const auto& transition = m_state.next(Cause::Loss);
    m_state.enter(transition);
    m_context.letStreamsSend(false);
    if (goodbye == Goodbye::Said) contained("Saying goodbye", [this] { sayGoodbye(); });
    AGENT_LOG(m_context, Notice, "Virtual Channel Agents are disconnected");
    if (transition.beginsOrEndsThreads) {
        contained("Telling the channel of a disconnection", [this] {
            if (auto* const channel = m_context.channel()) channel->onAgentStateChange(false);
        });
        contained("Becoming inactive", [this] { m_context.environment->clearActive(); });
        m_checker.requestStop();
        m_outgoing.stop();
        m_checker.stop();
    }
    contained("Telling of a disconnection", [this] { m_notifier.notifyEvent("ChannelDown"); });
    contained("Writing the log", [] { VirtualChannelLogger_flushBufferIfAllowed(); });
    assert(IsConsistent());
}

// The channel drops its queue when told that the agents are disconnected, so wait first.
void AgentConnection::sayGoodbye() {
    m_context.SendMessageToChannel(bareMessage(CTL_DISCONNECT));
    if (auto* const channel = m_context.channel()) channel->WaitUntilSent(kGoodbyeLimit);
}

bool AgentConnection::IsConsistent() const {
    const bool connected = m_state.phase() == Phase::Connected;
    return m_context.connected == connected && m_outgoing.isRunning() == connected &&
           m_checker.isRunning() == connected;
}

void AgentConnection::requestConnect() {
    AGENT_LOG(m_context, Info, "requestConnect()");
    m_context.SendMessageToChannel(bareMessage(CTL_CONNECT));
}

void AgentConnection::requestDisconnect() {
    AGENT_LOG(m_context, Info, "requestDisconnect()");
    OrderedLock lock(m_transitionMutex, lock_order::transition);
    leave(Goodbye::Said);
}

void AgentConnection::sendFlushLogs() {
    AGENT_LOG(m_context, Info, "sendFlushLogs()");
    m_context.SendMessageToChannel(bareMessage(CTL_LOGFLUSH));
    VirtualChannelLogger_flush();
}

void AgentConnection::availabilityChanged(bool available) {
    AGENT_LOG(m_context, Notice,
              "OnVirtualChannelAvailabilityChange: ", available ? "available " : "not available ");
    if (m_context.stopping) return;
    m_context.catchUp();
    if (m_context.environment->hasOtherActiveAgent()) {
        AGENT_LOG(m_context, Notice,
                  "Another virtual channel agent is connected, so ignore "
                  "OnVirtualChannelAvailabilityChange.",
                  m_context.activeAgent());
        // No connection outlives its channel, whichever agent is active.
        if (!available) {
            OrderedLock lock(m_transitionMutex, lock_order::transition);
            if (m_context.connected) leave(Goodbye::Unsaid);
        }
        return;
    }
    if (available == m_channelAvailable)
        AGENT_LOG(m_context, Info, "Availability didn't actually change");
    if (!available) {
        AGENT_LOG(m_context, Notice, "Virtual Channel is not available");
        setDisconnected();
    } else {
        // Another thread of the host's may be completing the handshake: a request behind a stream's
        // first packets would make the peer forget them.
        OrderedLock lock(m_transitionMutex, lock_order::transition);
        if (!m_context.connected) {
            AGENT_LOG(m_context, Info, "Check if remote side is able to talk to us");
            requestConnect();
        }
    }
    m_channelAvailable = available;
}

void AgentConnection::channelShutsDown() {
    AGENT_LOG(m_context, Notice, "Virtual Channel shutting down");
    if (!m_context.connected) return;
    AGENT_LOG(m_context, Info, "setting disconnect");
    setDisconnected();
}

void AgentConnection::end(bool tellPeer) {
    // Waits for a transition that began before stopping was set; later ones see it.
    { OrderedLock lock(m_transitionMutex, lock_order::transition); }
    if (!m_context.connected) return;
    if (tellPeer) {
        requestDisconnect();
    } else {
        setDisconnected();
    }
}

}  // namespace VirtualChannelAgent
