#include "OutgoingMessages.h"

NORVO_LOG_SOURCE("src/virtualchannel/src/common/vc_agent/VirtualChannelAgent")

namespace VirtualChannelAgent {

void OutgoingMessages::SendMessageToChannelAboutStream(MessageTypeEnum type,
                                                       const std::string& streamName,
                                                       StreamType streamType,
                                                       unsigned int streamSize) {
    auto message = std::make_unique<VCMessage>();
    message->setMessageType(type);
    message->setStreamName(streamName);
    message->setStreamType(static_cast<unsigned int>(streamType));
    message->setStreamSize(streamSize);
    if (!m_queue.push(std::move(message))) {
        AGENT_LOG(Notice,
                  "Sending buffer to virtual channel full, removing the oldest message to make "
                  "space for a new one.");
    }
}

bool OutgoingMessages::start() {
    return m_thread.start([this] { SendMessageToChannelAboutStreamThread(); });
}

void OutgoingMessages::stop() {
    m_queue.wake();
    m_thread.join();
}

void OutgoingMessages::SendMessageToChannelAboutStreamThread() {
    AGENT_LOG(Info, "SendMessageToChannelAboutStreamThread started. ");
    const auto connected = [this] { return m_context.connected.load(); };
    // One thread sends, so the order holds although the queue is not locked meanwhile.
    while (const auto message = m_queue.pop(connected)) {
        m_link.SendMessageToChannel(**message, false);
        if (!connected()) break;
    }
    AGENT_LOG(Info, "Finishing SendMessageToChannelAboutStreamThread thread/method");
}

}  // namespace VirtualChannelAgent
