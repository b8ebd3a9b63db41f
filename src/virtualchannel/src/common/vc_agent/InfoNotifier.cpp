#include "InfoNotifier.h"

#include "AgentStream.h"
#include "ChannelKinds.h"
#include "MessageBuilder.h"
#include "ProcessUtils.h"
#include "StreamType.h"

namespace VirtualChannelAgent {

using VDIFrameworkCommon::MessageBuilder;
using VDIFrameworkCommon::ProcessUtils;

namespace {

const char* environmentName(int channelType) {
    const auto* const kind = NorvoVirtualChannel::findChannelKind(channelType);
    return kind ? kind->name : "unknown";
}

}  // namespace

StreamPtr InfoNotifier::infoStream() const {
    StreamPtr stream = m_context.findStream(m_context.infoOutputName);
    if (!stream && !m_context.stopping) AGENT_LOG(m_context, Warning, "Cannot find INFO Stream!");
    return stream;
}

void InfoNotifier::notifyInfoS(std::string message) {
    const StreamPtr info = infoStream();
    if (!info) return;
    AGENT_LOG(m_context, Info, "INFO-S subscribers notified: '", shown(message), "'");
    info->enqueue(std::move(message));
}

void InfoNotifier::notifyEvent(const char* operation) {
    // A process told of a lost connection forgets the streams.
    if (const StreamPtr info = m_context.findStream(m_context.infoOutputName))
        m_eventAt = info->queued();
    notifyInfoS(MessageBuilder().append(operation).msg());
}

void InfoNotifier::notifyCurrentProcessId(bool connected) {
    auto* const channel = m_context.channel();
    const bool runsInChild = channel && channel->GetType() == NorvoVirtualChannel::kVMware;
    const std::string id = std::to_string(runsInChild ? ProcessUtils::getParentProcessId()
                                                      : ProcessUtils::getCurrentProcessId());
    AGENT_LOG(m_context, Info, "Current process id:", id);
    notifyInfoS(MessageBuilder().append("VCProcessId").append(id).append(connected).msg());
}

void InfoNotifier::notifyEnviromentType() {
    auto* const channel = m_context.channel();
    const std::string name = environmentName(channel ? channel->GetType() : 0);
    AGENT_LOG(m_context, Info, "notify EnviromentType: ", name);
    notifyInfoS(MessageBuilder().append("EnviromentType").append(name).msg());
}

void InfoNotifier::notifyThinClientPlatform(unsigned int platform) {
    AGENT_LOG(m_context, Info, "notify OnThinClientPlatformChange: ", platform);
    notifyInfoS(MessageBuilder().append("ThinClientPlatform").append(platform).msg());
}

void InfoNotifier::notifyChannelBlocked(bool blocked) {
    AGENT_LOG(m_context, Info, "notify OnChannelBlockedByPolicySetting: ", blocked);
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
    AGENT_LOG(m_context, Info, "notify invalid streams:", invalid);
    if (invalid.empty()) return;
    notifyInfoS(MessageBuilder().append("InvalidStreams").append(invalid).msg());
}

bool InfoNotifier::isAnnouncementPending(const Agent::Stream& stream,
                                         const Agent::Stream& info) const {
    const std::uint64_t at = stream.announcedAt;
    return at >= m_eventAt && at < info.queued() && info.passed() <= at;
}

void InfoNotifier::notifyRunningStreams(std::span<const std::string> names) {
    if (!m_context.connected) {
        AGENT_LOG(m_context, Info, "agent disconnected:");
        return;
    }
    std::vector<StreamPtr> streams;
    if (names.empty()) streams = m_context.streams();
    for (const std::string& name : names) streams.push_back(m_context.findStream(name));
    for (const auto& stream : streams) {
        if (stream && stream->isRunning()) notifyStream(*stream);
    }
}

void InfoNotifier::notifyStream(Agent::Stream& stream) {
    const StreamPtr info = infoStream();
    if (!info || isAnnouncementPending(stream, *info)) return;
    stream.announcedAt = info->queued();
    // When both ends have the same direction, only the opposite one is of use to a process.
    const StreamType use =
        stream.conflictsWithPeer ? stream.type() : utils::GetMirroredSType(stream.type());
    std::string message = MessageBuilder()
                              .append("StreamUp")
                              .append(stream.name())
                              .append(utils::STypeToString(use))
                              .msg();
    AGENT_LOG_REPEATED(m_context, m_streamsUp, Info, "INFO-S subscribers notified: '",
                       shown(message), "'");
    info->enqueue(std::move(message));
}

void InfoNotifier::notifyIsSeamlessMode() {
    auto* const channel = m_context.channel();
    if (!channel) return;
    const bool seamless = channel->IsSeamlessMode();
    AGENT_LOG(m_context, Info, "notify IsSeamlessMode: ", seamless);
    notifyInfoS(MessageBuilder().append("IsSeamless").append(seamless).msg());
}

void InfoNotifier::notifyIsMultiSession() {
    auto* const channel = m_context.channel();
    if (!channel) return;
    const bool several = channel->IsMultiSession();
    AGENT_LOG(m_context, Info, "notify IsMultiSession: ", several);
    notifyInfoS(MessageBuilder().append("IsMultiSession").append(several).msg());
}

void InfoNotifier::notifyGetWindowHandle(void* serverWindow) {
    auto* const channel = m_context.channel();
    if (!channel) return;
    void* const window = channel->GetClientWindowHandleFromServerWindowHandle(serverWindow);
    AGENT_LOG(m_context, Info, "notify getWindowHandle: ", window);
    notifyInfoS(MessageBuilder().append("GetWindowHandle").append(window).msg());
}

}  // namespace VirtualChannelAgent
