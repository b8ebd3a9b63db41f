#pragma once

#include "AgentContext.h"
#include "ConnectionState.h"
#include "InfoNotifier.h"
#include "LockOrder.h"
#include "OutgoingMessages.h"
#include "StreamStateChecker.h"

namespace VirtualChannelAgent {

// Enters and leaves the connected state. Any thread, but do not leave it on the agent's two
// connection threads, which end with it.
class AgentConnection {
public:
    AgentConnection(AgentContext& context, OutgoingMessages& outgoing, InfoNotifier& notifier)
        : m_context(context), m_outgoing(outgoing), m_notifier(notifier), m_checker(context) {}

    // Call when the peer has finished a handshake. Enters the connected state or refreshes it:
    // notifies local processes and, unless this is the first connection, asks the peer again for
    // its ends of the streams. False when there is no connection: the agent is ending, or has no
    // threads for it.
    bool setConnected() NORVO_TAKES_TRANSITION;
    // Sends it unless the connection has been left: nothing may follow CTL_DISCONNECT.
    void sendWhileConnected(const VCMessage& message) NORVO_TAKES_TRANSITION;
    // Leaves it. Local processes are notified even if there was no connection.
    void setDisconnected() NORVO_TAKES_TRANSITION;

    void requestConnect();
    // Leaves the connected state and tells the peer. The message may be lost if the channel takes
    // longer than 250 ms to send what was queued before.
    void requestDisconnect() NORVO_TAKES_TRANSITION;
    // Makes both sides flush their logs.
    void sendFlushLogs();

    void availabilityChanged(bool available) NORVO_TAKES_TRANSITION;
    void channelShutsDown() NORVO_TAKES_TRANSITION;

    // Call after context.stopping has been set. Afterwards there is no connection, and none can
    // begin. `tellPeer`: an existing one ends with CTL_DISCONNECT.
    void end(bool tellPeer) NORVO_TAKES_TRANSITION;

private:
    enum class Goodbye { Said, Unsaid };
    void announceAgain() NORVO_TAKES_STREAMS;
    bool begin(const ConnectionState::Transition& transition)
        NORVO_REQUIRES(m_transitionMutex, lock_order::transition) NORVO_TAKES_CREATION;
    void leave(Goodbye goodbye)
        NORVO_REQUIRES(m_transitionMutex, lock_order::transition) NORVO_TAKES_CREATION;
    void sayGoodbye();
    // Whether exactly the threads of the current phase exist.
    bool IsConsistent() const NORVO_REQUIRES(m_transitionMutex, lock_order::transition);

    AgentContext& m_context;
    OutgoingMessages& m_outgoing;
    InfoNotifier& m_notifier;

    VDIFrameworkCommon::LocalMutex m_transitionMutex;
    ConnectionState m_state NORVO_GUARDED_BY(m_transitionMutex){m_context.connected};
    StreamStateChecker m_checker;
    std::atomic<bool> m_channelAvailable{false};  // as last reported by the channel
};

}  // namespace VirtualChannelAgent
