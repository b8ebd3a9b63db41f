#pragma once

#include <atomic>
#include <string>

#include "AgentContext.h"
#include "StreamType.h"
#include "VirtualChannel.h"

namespace VirtualChannelAgent {

class VCMessage;

// The agent's way to its channel. Takes no lock and may be used from any thread; without a channel,
// what is sent is lost silently.
class ChannelLink {
public:
    explicit ChannelLink(AgentContext& context) : m_context(context) {}

    NorvoVirtualChannel::VirtualChannel* channel() const { return m_pChannel; }
    void setChannel(NorvoVirtualChannel::VirtualChannel* channel) { m_pChannel = channel; }

    // Hands the message to the channel on this thread. One that has no type yet is dropped.
    void SendMessageToChannel(const VCMessage& message, bool lowPriority);

    // The same for a CTL_S_ROUTE message that carries `data`, copied once.
    void sendRoutedData(const std::string& streamName, StreamType type, unsigned int size,
                        const std::string& data, bool lowPriority);

private:
    AgentContext& m_context;
    std::atomic<NorvoVirtualChannel::VirtualChannel*> m_pChannel{nullptr};
};

}  // namespace VirtualChannelAgent
