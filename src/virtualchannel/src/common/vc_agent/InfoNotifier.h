#pragma once

#include <span>
#include <string>

#include "AgentContext.h"
#include "LockOrder.h"
#include "PeerCapabilities.h"

namespace VirtualChannelAgent {

// Notifies local processes through messages on the outgoing INFO stream: an operation name and its
// fields (MessageBuilder.h). Any thread. Without a channel, what only the channel knows is not
// announced.
class InfoNotifier {
public:
    InfoNotifier(AgentContext& context, const PeerCapabilities& peer)
        : m_context(context), m_peer(peer) {}

    // Queues one message for all listening local processes.
    void notifyInfoS(std::string message) NORVO_TAKES_STREAMS;
    // The same for an operation without fields.
    void notifyEvent(const char* operation) NORVO_TAKES_STREAMS;

    void notifyCurrentProcessId(bool connected) NORVO_TAKES_STREAMS;
    void notifyEnviromentType() NORVO_TAKES_STREAMS;
    void notifyThinClientPlatform(unsigned int platform) NORVO_TAKES_STREAMS;
    void notifyChannelBlocked(bool blocked) NORVO_TAKES_STREAMS;
    // The peer's channel version and this side's; nothing while the former is unknown.
    void notifyChannelVersion() NORVO_TAKES_STREAMS;
    // The names of our streams that the peer does not serve, if any; only while connected.
    void notifyInvalidStreams() NORVO_TAKES_STREAMS;
    // Notifies of each running stream of these names, or of all when there are none; only while
    // connected.
    void notifyRunningStreams(std::span<const std::string> names) NORVO_TAKES_STREAMS;

    void notifyIsSeamlessMode() NORVO_TAKES_STREAMS;
    void notifyIsMultiSession() NORVO_TAKES_STREAMS;
    void notifyGetWindowHandle(void* serverWindow) NORVO_TAKES_STREAMS;
    // "StreamUp" for one stream, with its type as a local process sees it; unless the last one for
    // it is still to be delivered.
    void notifyStream(Agent::Stream& stream) NORVO_TAKES_STREAMS;

private:
    StreamPtr infoStream() const NORVO_TAKES_STREAMS;
    bool isAnnouncementPending(const Agent::Stream& stream,
                               const Agent::Stream& info) const NORVO_TAKES_LEAF;

    AgentContext& m_context;
    const PeerCapabilities& m_peer;

    KLT::kltlogger::LogRepeats m_streamsUp;
    // The position of the last event among all notifications.
    std::atomic<std::uint64_t> m_eventAt{0};
};

}  // namespace VirtualChannelAgent
