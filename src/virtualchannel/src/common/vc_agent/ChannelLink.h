#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

#include "AgentContext.h"
#include "LockOrder.h"
#include "StreamType.h"
#include "VirtualChannel.h"

namespace VirtualChannelAgent {

class VCMessage;

// The agent's way to its channel. Any thread. Without a channel, control messages are lost
// silently.
class ChannelLink {
public:
    explicit ChannelLink(AgentContext& context) : m_context(context) {}

    NorvoVirtualChannel::VirtualChannel* channel() const { return m_pChannel; }
    void setChannel(NorvoVirtualChannel::VirtualChannel* channel) NORVO_TAKES_LEAF;

    // Whether the agents are connected: streams are only read while they are. Call it with true
    // after the channel has been told of the connection, and with false before it is told of the
    // loss.
    void setConnected(bool connected) NORVO_TAKES_LEAF;

    // Hands the message to the channel on this thread. One that has no type yet is dropped.
    void SendMessageToChannel(const VCMessage& message, bool lowPriority);

    // Sends `data` as a CTL_S_ROUTE message. Waits for a connection when there is none, and for the
    // stream's turn, for as long as `goesOn`; call wakeSenders() when that becomes false. A message
    // that the end of a connection cuts in two is dropped; one that nothing has been sent of goes
    // out first after the next beginning.
    void sendRoutedData(const std::string& streamName, StreamType type, unsigned int size,
                        std::string data, bool lowPriority,
                        const std::atomic<bool>& goesOn) NORVO_TAKES_LEAF;
    void wakeSenders() NORVO_TAKES_LEAF;

private:
    void change(const std::function<void()>& step) NORVO_TAKES_LEAF;
    // Waits for a channel and a connection of another generation than `generation`, which then
    // becomes it. Null when `goesOn` became false.
    NorvoVirtualChannel::VirtualChannel* waitForConnection(
        std::uint64_t& generation, const std::atomic<bool>& goesOn) NORVO_TAKES_LEAF;

    AgentContext& m_context;
    std::atomic<NorvoVirtualChannel::VirtualChannel*> m_pChannel{nullptr};

    VDIFrameworkCommon::LocalMutex m_mutex;
    VDIFrameworkCommon::LocalCondition m_changed;
    bool m_connected NORVO_GUARDED_BY(m_mutex) = false;
    // Counts the changes of channel and connection: what was refused in one is not tried in it
    // again. Written under the mutex.
    std::atomic<std::uint64_t> m_generation{0};
};

}  // namespace VirtualChannelAgent
