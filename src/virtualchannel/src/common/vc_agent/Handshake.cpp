// The handshake messages of the control protocol.
#include "ControlProtocol.h"
#include "Conversions.h"
#include "StreamRules.h"
#include "VDIClientInfo.h"

namespace VirtualChannelAgent {

using VDIFrameworkCommon::VDIClientInfo;

bool ControlProtocol::ignoresHandshake(const char* messageName) {
    if (m_context.stopping) return true;
    if (!m_context.environment->hasOtherActiveAgent()) return false;
    AGENT_LOG(m_context, Notice, "Another virtual channel agent is connected, so ignore ",
              messageName, ".", m_context.activeAgent());
    return true;
}

// A peer that sends this has just started or restarted.
void ControlProtocol::connect(const Received& /*received*/) {
    if (auto* const channel = m_context.channel()) channel->ForgetIncompleteMessages();
    if (ignoresHandshake("CTL_CONNECT")) return;
    m_context.SendMessageToChannel(capabilities(CTL_CONNECT_READY));
}

void ControlProtocol::connectReady(const Received& received) {
    if (ignoresHandshake("CTL_CONNECT_READY")) return;
    if (!takeHandshake(received.message)) return;
    AGENT_LOG(m_context, Info, "reply with CTL_CONNECTED and supported streams list");
    m_connection.sendWhileConnected(capabilities(CTL_CONNECTED));
}

void ControlProtocol::connected(const Received& received) {
    if (ignoresHandshake("CTL_CONNECTED") || takeHandshake(received.message)) return;
    if (m_context.stopping) return;
    // For the peer there is a connection.
    VCMessage refusal;
    refusal.setMessageType(CTL_DISCONNECT);
    m_context.SendMessageToChannel(refusal);
}

bool ControlProtocol::takeHandshake(const VCMessage& message) {
    takeVersions(message);
    if (!m_connection.setConnected()) return false;
    takeStreamList(message);
    return true;
}

void ControlProtocol::takeVersions(const VCMessage& message) {
    const bool hasChannelVersion = message.hasChannelVersion();
    const std::string channelVersion =
        hasChannelVersion ? message.getChannelVersion() : std::string();
    m_peer.setChannelVersion(channelVersion);
    if (hasChannelVersion) {
        AGENT_LOG(m_context, Info, "Receive peer virtual channel version: ", shown(channelVersion));
    } else {
        AGENT_LOG(m_context, Info, "No peer virtual channel version");
    }

    if (message.hasInternalVersion()) {
        const std::string version = message.getInternalVersion();
        VDIClientInfo::getInstance().setPeerInternalVersion(VDIFrameworkCommon::toInt(version));
        AGENT_LOG(m_context, Info, "Receive peer internal version: ", shown(version));
    } else {
        AGENT_LOG(m_context, Info, "No peer internal version");
    }

    const bool hasClientVersion = message.hasClientVersion();
    const std::string clientVersion = hasClientVersion ? message.getClientVersion() : std::string();
    VDIClientInfo::getInstance().setPeerClientVersion(clientVersion);
    if (hasClientVersion) {
        AGENT_LOG(m_context, Info, "Receive peer client version: ", shown(clientVersion));
    } else {
        AGENT_LOG(m_context, Info, "No peer client version");
    }
}

void ControlProtocol::takeStreamList(const VCMessage& message) {
    const std::string list =
        message.hasSupportedStreams() ? message.getSupportedStreams() : std::string();
    if (list.empty()) {
        AGENT_LOG(m_context, Info, "Receive Peer Supported Streams is empty");
        m_peer.forgetStreams();
        return;
    }
    AGENT_LOG(m_context, Info, "Receive Peer Supported Streams:", shown(list));
    m_peer.setStreams(list);
    m_context.notifyInvalidStreams();
}

VCMessage ControlProtocol::capabilities(MessageTypeEnum type) const {
    const VDIClientInfo& info = VDIClientInfo::getInstance();
    VCMessage message;
    message.setMessageType(type);
    const std::string streams = supportedStreamsText();
    if (streams.empty()) {
        AGENT_LOG(m_context, Warning, "stream list is empty.");
    } else {
        message.setSupportedStreams(streams);
    }
    message.setChannelVersion(kChannelVersion);
    message.setInternalVersion(VDIFrameworkCommon::toString(info.getMyInternalVersion()));
    message.setClientVersion(info.getClientVersion());
    return message;
}

}  // namespace VirtualChannelAgent
