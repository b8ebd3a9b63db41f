#pragma once

#include <string>

#include "AgentContext.h"
#include "ChannelLink.h"
#include "LockOrder.h"
#include "PeerCapabilities.h"
#include "StreamTable.h"

namespace VirtualChannelAgent {

// Tells local processes what happens, in messages on the outgoing INFO stream: an operation name
// and its fields (MessageBuilder.h). Any thread. Without a channel, what only the channel can
// answer is not announced.
class InfoNotifier {
public:
    InfoNotifier(AgentContext& context, ChannelLink& link, const StreamTable& streams,
                 const PeerCapabilities& peer)
        : m_context(context), m_link(link), m_streams(streams), m_peer(peer) {}

    // Queues one message for every local process that listens.
    void notifyInfoS(std::string message) NORVO_TAKES_STREAMS;
    // The same for an operation without fields.
    void notifyEvent(const char* operation) NORVO_TAKES_STREAMS;

    void notifyCurrentProcessId(bool connected) NORVO_TAKES_STREAMS;
    void notifyEnviromentType() NORVO_TAKES_STREAMS;
    void notifyThinClientPlatform(unsigned int platform) NORVO_TAKES_STREAMS;
    void notifyChannelBlocked(bool blocked) NORVO_TAKES_STREAMS;
    // The far side's channel version and this side's; nothing while the former is not known.
    void notifyChannelVersion() NORVO_TAKES_STREAMS;
    // Our stream names that the far side does not serve; only while connected, and if there are
    // any.
    void notifyInvalidStreams() NORVO_TAKES_STREAMS;
    // One message per running stream, its type as a local process sees it; only while connected.
    void notifyRunningStreams() NORVO_TAKES_STREAMS;

    void notifyIsSeamlessMode() NORVO_TAKES_STREAMS;
    void notifyIsMultiSession() NORVO_TAKES_STREAMS;
    void notifyGetWindowHandle(void* serverWindow) NORVO_TAKES_STREAMS;

private:
    AgentContext& m_context;
    ChannelLink& m_link;
    const StreamTable& m_streams;
    const PeerCapabilities& m_peer;
};

}  // namespace VirtualChannelAgent
