#pragma once

#include "AgentContext.h"
#include "ConnectionState.h"
#include "InfoNotifier.h"
#include "LockOrder.h"
#include "OutgoingMessages.h"
#include "StreamStateChecker.h"

namespace VirtualChannelAgent {

// Entering and leaving the connected state, and what leads there. Any thread, except that the
// connected state cannot be left on the agent's two connection threads, which end with it.
class AgentConnection {
public:
    AgentConnection(AgentContext& context, OutgoingMessages& outgoing, InfoNotifier& notifier)
        : m_context(context), m_outgoing(outgoing), m_notifier(notifier), m_checker(context) {}

    // The far side has finished a handshake. Enters the connected state, or refreshes it: local
    // processes are told, and the far side is asked again for its ends of the streams unless this
    // is the first connection.
    void setConnected() NORVO_TAKES_TRANSITION;
    // Leaves it. Local processes are told also when there was no connection.
    void setDisconnected() NORVO_TAKES_TRANSITION;

    void requestConnect();
    // Leaves the connected state and tells the far side, which hears it unless the channel takes
    // longer than 250 ms to send what was queued before.
    void requestDisconnect() NORVO_TAKES_TRANSITION;
    // Has both sides write their logs out.
    void sendFlushLogs();

    void availabilityChanged(bool available) NORVO_TAKES_TRANSITION;
    void channelShutsDown() NORVO_TAKES_TRANSITION;

    // To be called when context.stopping has been set: there is no connection afterwards, and none
    // can begin. `tellPeer`: an existing one ends with CTL_DISCONNECT.
    void end(bool tellPeer) NORVO_TAKES_TRANSITION;

private:
    enum class Goodbye { Said, Unsaid };
    void announceAgain() NORVO_TAKES_STREAMS;
    void begin(const ConnectionState::Transition& transition)
        NORVO_REQUIRES(m_transitionMutex, lock_order::transition) NORVO_TAKES_CREATION;
    void leave(Goodbye goodbye)
        NORVO_REQUIRES(m_transitionMutex, lock_order::transition) NORVO_TAKES_CREATION;
    void sayGoodbye();
    // What must exist in each phase does, and nothing else.
    bool IsConsistent() const NORVO_REQUIRES(m_transitionMutex, lock_order::transition);

    AgentContext& m_context;
    OutgoingMessages& m_outgoing;
    InfoNotifier& m_notifier;

    VDIFrameworkCommon::LocalMutex m_transitionMutex;
    ConnectionState m_state NORVO_GUARDED_BY(m_transitionMutex){m_context.connected};
    StreamStateChecker m_checker;
    std::atomic<bool> m_channelAvailable{false};  // as the channel said last
};

}  // namespace VirtualChannelAgent
