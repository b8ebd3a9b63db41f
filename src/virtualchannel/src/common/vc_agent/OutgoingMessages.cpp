#include "OutgoingMessages.h"

#include "Contained.h"

namespace VirtualChannelAgent {

namespace {
constexpr std::chrono::milliseconds kPacedPause{5};
}

void OutgoingMessages::SendMessageToChannelAboutStream(MessageTypeEnum type,
                                                       const StreamDetails& stream, Pace pace) {
    if (m_queue.push({stream, type, pace}) > 0) {
        AGENT_LOG_REPEATED(
            m_context, m_dropped, Notice,
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
    AGENT_LOG(m_context, Info, "SendMessageToChannelAboutStreamThread started. ");
    const auto connected = [this] { return m_context.connected.load(); };
    // Only one thread sends, so order is kept although the queue is not locked meanwhile.
    while (const auto message = m_queue.pop(connected)) {
        VDIFrameworkCommon::contained("Sending about a stream", [&] { send(*message); });
        if (!connected()) break;
        if (message->pace == Pace::Paced) m_context.environment->pause(kPacedPause);
    }
    AGENT_LOG(m_context, Info, "Finishing SendMessageToChannelAboutStreamThread thread/method");
}

void OutgoingMessages::send(const Message& message) {
    VCMessage wire;
    wire.setMessageType(message.type);
    wire.setStreamName(message.stream.name);
    wire.setStreamType(static_cast<unsigned int>(message.stream.type));
    wire.setStreamSize(message.stream.size);
    m_context.SendMessageToChannel(wire);
}

}  // namespace VirtualChannelAgent
