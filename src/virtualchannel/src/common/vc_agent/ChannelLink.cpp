#include "ChannelLink.h"

#include "VCMessage.h"

NORVO_LOG_SOURCE("src/virtualchannel/src/common/vc_agent/VirtualChannelAgent")

namespace VirtualChannelAgent {

void ChannelLink::SendMessageToChannel(const VCMessage& message, bool lowPriority) {
    if (!message.isInitialized()) {
        AGENT_LOG(m_context, Error, "message not initialized: ");
        return;
    }
    NorvoVirtualChannel::VirtualChannel* const target = channel();
    if (!target) return;
    const auto bytes = message.wireBytes();
    target->SendData(bytes.data(), static_cast<unsigned int>(bytes.size()), lowPriority);
}

void ChannelLink::sendRoutedData(const std::string& streamName, StreamType type, unsigned int size,
                                 const std::string& data, bool lowPriority) {
    VCMessage message;
    message.setMessageType(CTL_S_ROUTE);
    message.setStreamName(streamName);
    message.setStreamType(static_cast<unsigned int>(type));
    message.setStreamSize(size);
    message.setRouteData(data.data(), static_cast<unsigned int>(data.size()));
    SendMessageToChannel(message, lowPriority);
}

}  // namespace VirtualChannelAgent
