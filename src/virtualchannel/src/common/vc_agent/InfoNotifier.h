#pragma once

#include <string>

#include "AgentContext.h"
#include "LockOrder.h"
#include "PeerCapabilities.h"

namespace VirtualChannelAgent {

// Tells local processes what happens, in messages on the outgoing INFO stream: an operation name
// and its fields (MessageBuilder.h). Any thread. Without a channel, what only the channel can
// answer is not announced.
class InfoNotifier {
public:
    InfoNotifier(AgentContext& context, const PeerCapabilities& peer)
        : m_context(context), m_peer(peer) {}

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
    // Several requests are answered together as long as none of the answer has been delivered: of
    // many local processes that ask at once, each hears what all of them asked for.
    void notifyRunningStreams() NORVO_TAKES_STREAMS;

    void notifyIsSeamlessMode() NORVO_TAKES_STREAMS;
    void notifyIsMultiSession() NORVO_TAKES_STREAMS;
    void notifyGetWindowHandle(void* serverWindow) NORVO_TAKES_STREAMS;
    // "StreamUp" for one stream.
    void notifyStream(const Agent::Stream& stream) NORVO_TAKES_STREAMS;

private:
    StreamPtr infoStream() const NORVO_TAKES_STREAMS;
    bool rollCallWaits(const Agent::Stream& info) const NORVO_TAKES_LEAF;

    AgentContext& m_context;
    const PeerCapabilities& m_peer;

    KLT::kltlogger::LogRepeats m_streamsUp;
    static constexpr std::uint64_t kNone = ~std::uint64_t{0};
    // The place of the last roll call in the order of all notifications.
    std::atomic<std::uint64_t> m_rollCallAt{kNone};
    std::atomic<std::uint64_t> m_rollCallOf{0};  // streamsBegun as of then
};

}  // namespace VirtualChannelAgent
