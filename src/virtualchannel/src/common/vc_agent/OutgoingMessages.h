#pragma once

#include "AgentContext.h"
#include "AgentThread.h"
#include "BoundedQueue.h"
#include "LockOrder.h"
#include "StreamRules.h"

namespace VirtualChannelAgent {

// The queue of control messages about streams, and the thread that sends them in order while the
// agents are connected. Messages queued without a connection wait for the next one.
class OutgoingMessages {
public:
    explicit OutgoingMessages(AgentContext& context) : m_context(context) {}

    // The send thread waits 5 ms after a paced message, so that a host that paces its packets can
    // keep up.
    enum class Pace { AtOnce, Paced };

    // Any thread. When 1001 messages wait, the oldest is dropped.
    void SendMessageToChannelAboutStream(MessageTypeEnum type, const StreamDetails& stream,
                                         Pace pace = Pace::AtOnce) NORVO_TAKES_LEAF;

    // Call start() after context.connected has been set, and stop() after it has been cleared: at
    // most one more message is sent then. False when the thread could not be started.
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
