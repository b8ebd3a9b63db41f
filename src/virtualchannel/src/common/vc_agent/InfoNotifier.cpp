#include "InfoNotifier.h"

#include "MessageBuilder.h"
#include "ProcessUtils.h"
#include "StreamType.h"

NORVO_LOG_SOURCE("src/virtualchannel/src/common/vc_agent/VirtualChannelAgent")

namespace VirtualChannelAgent {

using VDIFrameworkCommon::MessageBuilder;
using VDIFrameworkCommon::ProcessUtils;

namespace {

const char* environmentName(int channelType) {
    switch (channelType) {
        case NorvoVirtualChannel::kCitrix:
            return "citrix";
        case NorvoVirtualChannel::kVMware:
            return "vmware";
        case NorvoVirtualChannel::kRdp:
            return "rdp";
        case NorvoVirtualChannel::kTcpSocket:
            return "tcp";
        default:
            return "unknown";
    }
}

}  // namespace

void InfoNotifier::notifyInfoS(std::string message) {
    const StreamPtr stream = m_streams.find(m_context.infoOutputName);
    if (!stream) {
        AGENT_LOG(Warning, "Cannot find INFO Stream!");
        return;
    }
    AGENT_LOG(Info, "INFO-S subscribers notified: '", shown(message), "'");
    stream->enqueue(std::move(message));
}

void InfoNotifier::notifyEvent(const char* operation) {
    notifyInfoS(MessageBuilder().append(operation).msg());
}

void InfoNotifier::notifyCurrentProcessId(bool connected) {
    auto* const channel = m_link.channel();
    const bool runsInChild = channel && channel->GetType() == NorvoVirtualChannel::kVMware;
    const std::string id = std::to_string(runsInChild ? ProcessUtils::getParentProcessId()
                                                      : ProcessUtils::getCurrentProcessId());
    AGENT_LOG(Info, "Current process id:", id);
    notifyInfoS(MessageBuilder().append("VCProcessId").append(id).append(connected).msg());
}

void InfoNotifier::notifyEnviromentType() {
    auto* const channel = m_link.channel();
    const std::string name = environmentName(channel ? channel->GetType() : 0);
    AGENT_LOG(Info, "notify EnviromentType: ", name);
    notifyInfoS(MessageBuilder().append("EnviromentType").append(name).msg());
}

void InfoNotifier::notifyThinClientPlatform(unsigned int platform) {
    AGENT_LOG(Info, "notify OnThinClientPlatformChange: ", platform);
    notifyInfoS(MessageBuilder().append("ThinClientPlatform").append(platform).msg());
}

void InfoNotifier::notifyChannelBlocked(bool blocked) {
    AGENT_LOG(Info, "notify OnChannelBlockedByPolicySetting: ", blocked);
    notifyInfoS(MessageBuilder().append("ChannelBlockedByPolicySetting").append(blocked).msg());
}

void InfoNotifier::notifyChannelVersion() {
    const std::string peerVersion = m_peer.channelVersion();
    if (peerVersion.empty()) return;
    notifyInfoS(MessageBuilder()
                    .append("ChannelVersion")
                    .append(peerVersion)
                    .append(kChannelVersion)
                    .msg());
}

void InfoNotifier::notifyInvalidStreams() {
    if (!m_context.connected || !m_peer.streamsAreKnown()) return;
    const std::string invalid = m_peer.getInvalidStreams();
    AGENT_LOG(Info, "notify invalid streams:", invalid);
    if (invalid.empty()) return;
    notifyInfoS(MessageBuilder().append("InvalidStreams").append(invalid).msg());
}

void InfoNotifier::notifyRunningStreams() {
    if (!m_context.connected) {
        AGENT_LOG(Info, "agent disconnected:");
        return;
    }
    for (const auto& stream : m_streams.snapshot()) {
        if (!stream->isRunning()) continue;
        notifyInfoS(MessageBuilder()
                        .append("StreamUp")
                        .append(stream->name())
                        .append(utils::STypeToString(utils::GetMirroredSType(stream->type())))
                        .msg());
    }
}

void InfoNotifier::notifyIsSeamlessMode() {
    auto* const channel = m_link.channel();
    if (!channel) return;
    const bool seamless = channel->IsSeamlessMode();
    AGENT_LOG(Info, "notify IsSeamlessMode: ", seamless);
    notifyInfoS(MessageBuilder().append("IsSeamless").append(seamless).msg());
}

void InfoNotifier::notifyIsMultiSession() {
    auto* const channel = m_link.channel();
    if (!channel) return;
    const bool several = channel->IsMultiSession();
    AGENT_LOG(Info, "notify IsMultiSession: ", several);
    notifyInfoS(MessageBuilder().append("IsMultiSession").append(several).msg());
}

void InfoNotifier::notifyGetWindowHandle(void* serverWindow) {
    auto* const channel = m_link.channel();
    if (!channel) return;
    void* const window = channel->GetClientWindowHandleFromServerWindowHandle(serverWindow);
    AGENT_LOG(Info, "notify getWindowHandle: ", window);
    notifyInfoS(MessageBuilder().append("GetWindowHandle").append(window).msg());
}

}  // namespace VirtualChannelAgent
