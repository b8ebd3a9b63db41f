#pragma once

#include <memory>
#include <string>

#include "AgentContext.h"
#include "AgentThread.h"
#include "BoundedQueue.h"
#include "ChannelLink.h"
#include "LockOrder.h"
#include "VCMessage.h"

namespace VirtualChannelAgent {

// Control messages about streams on their way to the far side, and the thread that sends them in
// order while the agents are connected. What is queued without a connection waits for the next one.
class OutgoingMessages {
public:
    OutgoingMessages(AgentContext& context, ChannelLink& link) : m_context(context), m_link(link) {}

    // Any thread. When 1001 messages wait, the oldest is dropped.
    void SendMessageToChannelAboutStream(MessageTypeEnum type, const std::string& streamName,
                                         StreamType streamType,
                                         unsigned int streamSize) NORVO_TAKES_LEAF;

    // Call start() after context.connected has been set, and stop() after it has been cleared: at
    // most one more message leaves then. False when the thread could not be started.
    bool start() NORVO_REQUIRES(lock_order::transition);
    void stop() NORVO_REQUIRES(lock_order::transition) NORVO_TAKES_LEAF;

    bool isRunning() const NORVO_REQUIRES(lock_order::transition) { return m_thread.isRunning(); }

private:
    void SendMessageToChannelAboutStreamThread() NORVO_TAKES_LEAF;

    AgentContext& m_context;
    ChannelLink& m_link;
    BoundedQueue<std::unique_ptr<VCMessage>> m_queue;
    AgentThread m_thread NORVO_GUARDED_BY(lock_order::transition);
};

}  // namespace VirtualChannelAgent
