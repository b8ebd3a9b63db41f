#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "AgentContext.h"
#include "LockOrder.h"
#include "MessageBytes.h"
#include "StreamType.h"
#include "VirtualChannel.h"

namespace VirtualChannelAgent {

class VCMessage;

// The agent's link to its channel. Any thread. Without a channel, control messages are silently
// lost.
class ChannelLink {
public:
    explicit ChannelLink(AgentContext& context) : m_context(context) {}

    NorvoVirtualChannel::VirtualChannel* channel() const { return m_pChannel; }
    void setChannel(NorvoVirtualChannel::VirtualChannel* channel) NORVO_TAKES_LEAF;

    // Whether the agents are connected: streams are only read while they are. Call with true after
    // telling the channel of the connection, and with false before telling it of the loss.
    void setConnected(bool connected) NORVO_TAKES_LEAF;

    // Hands the message to the channel on this thread. A message without a type is dropped.
    void SendMessageToChannel(const VCMessage& message, bool lowPriority);

    // Sends `data` as a CTL_S_ROUTE message. Waits for a connection and for the stream's turn while
    // `goesOn` is true; call wakeSenders() when it becomes false. A message that is partly sent
    // when the connection ends is dropped; one not yet begun is sent on the next connection.
    void sendRoutedData(const std::string& streamName, StreamType type, unsigned int size,
                        std::string_view data, bool lowPriority,
                        const std::atomic<bool>& goesOn) NORVO_TAKES_LEAF;
    // The same without waiting. False, with nothing sent, when it is not connected or would have to
    // wait for its turn.
    bool sendRoutedDataAtOnce(const std::string& streamName, StreamType type, unsigned int size,
                              std::string_view data, bool lowPriority) NORVO_TAKES_LEAF;
    // As VirtualChannel::StreamStandIn(), while connected.
    std::shared_ptr<VDIFrameworkCommon::StandIn> standIn() NORVO_TAKES_LEAF;
    void wakeSenders() NORVO_TAKES_LEAF;

    // As VirtualChannel::TakeReceivedMemory().
    VDIFrameworkCommon::MemoryBlock takeReceivedMemory() const {
        NorvoVirtualChannel::VirtualChannel* const source = channel();
        return source ? source->TakeReceivedMemory() : VDIFrameworkCommon::MemoryBlock();
    }

private:
    static MessageBytes headOf(const std::string& streamName, StreamType type, unsigned int size,
                               std::string_view data);
    void logDropped(const std::string& streamName, std::size_t size);
    void change(const std::function<void()>& step) NORVO_TAKES_LEAF;
    NorvoVirtualChannel::VirtualChannel* connectedChannel() NORVO_TAKES_LEAF;
    // Waits for a channel and a connection of a generation other than `generation`, and sets
    // `generation` to it. Null when `goesOn` became false.
    NorvoVirtualChannel::VirtualChannel* waitForConnection(
        std::uint64_t& generation, const std::atomic<bool>& goesOn) NORVO_TAKES_LEAF;

    AgentContext& m_context;
    std::atomic<NorvoVirtualChannel::VirtualChannel*> m_pChannel{nullptr};

    VDIFrameworkCommon::LocalMutex m_mutex;
    VDIFrameworkCommon::LocalCondition m_changed;
    bool m_connected NORVO_GUARDED_BY(m_mutex) = false;
    // Counts changes of channel and connection: a message refused in one generation is not retried
    // in the same one. Written under the mutex.
    std::atomic<std::uint64_t> m_generation{0};
};

}  // namespace VirtualChannelAgent
