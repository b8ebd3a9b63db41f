#pragma once

#include "AgentContext.h"
#include "AgentThread.h"
#include "BoundedQueue.h"
#include "LockOrder.h"
#include "StreamRules.h"

namespace VirtualChannelAgent {

// Control messages about streams on their way to the far side, and the thread that sends them in
// order while the agents are connected. What is queued without a connection waits for the next one.
class OutgoingMessages {
public:
    explicit OutgoingMessages(AgentContext& context) : m_context(context) {}

    // The send thread waits for 5 ms behind a paced message, so that a host that paces its packets
    // keeps up with many.
    enum class Pace { AtOnce, Paced };

    // Any thread. When 1001 messages wait, the oldest is dropped.
    void SendMessageToChannelAboutStream(MessageTypeEnum type, const StreamDetails& stream,
                                         Pace pace = Pace::AtOnce) NORVO_TAKES_LEAF;

    // Call start() after context.connected has been set, and stop() after it has been cleared: at
    // most one more message leaves then. False when the thread could not be started.
    bool start() NORVO_REQUIRES(lock_order::transition);
    void stop() NORVO_REQUIRES(lock_order::transition) NORVO_TAKES_LEAF;

    bool isRunning() const NORVO_REQUIRES(lock_order::transition) { return m_thread.isRunning(); }

private:
    struct Message {
        StreamDetails stream;
        MessageTypeEnum type;
        Pace pace;
    };
    void send(const Message& message);
    void SendMessageToChannelAboutStreamThread() NORVO_TAKES_LEAF;

    AgentContext& m_context;
    VDIFrameworkCommon::BoundedQueue<Message> m_queue{{kMaxQueuedMessages}};
    KLT::kltlogger::LogRepeats m_dropped;
    AgentThread m_thread NORVO_GUARDED_BY(lock_order::transition);
};

}  // namespace VirtualChannelAgent
