#include "ChannelLink.h"

#include "VCMessage.h"

namespace VirtualChannelAgent {

using lock_order::OrderedLock;
using NorvoVirtualChannel::StreamSend;
using NorvoVirtualChannel::VirtualChannel;
using VDIFrameworkCommon::SplitBytes;

namespace {
constexpr std::uint64_t kNone = ~std::uint64_t{0};  // a generation never reached

SplitBytes joined(const MessageBytes& head, std::string_view data) {
    return {{head.data(), head.size()}, std::as_bytes(std::span(data))};
}
}  // namespace

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

// A stream's data is sent as a message whose last field it is.
MessageBytes ChannelLink::headOf(const std::string& streamName, StreamType type, unsigned int size,
                                 std::string_view data) {
    VCMessage message;
    message.setMessageType(CTL_S_ROUTE);
    message.setStreamName(streamName);
    message.setStreamType(static_cast<unsigned int>(type));
    message.setStreamSize(size);
    return message.wireBytesBefore(data.size());
}

void ChannelLink::sendRoutedData(const std::string& streamName, StreamType type, unsigned int size,
                                 std::string_view data, bool lowPriority,
                                 const std::atomic<bool>& goesOn) {
    const MessageBytes head = headOf(streamName, type, size, data);
    if (head.size() == 0) return;
    const SplitBytes bytes = joined(head, data);
    std::uint64_t generation = kNone;
    const auto asBefore = [&] { return goesOn && m_generation == generation; };
    StreamSend result = StreamSend::NotSent;
    while (result == StreamSend::NotSent) {
        VirtualChannel* const target = waitForConnection(generation, goesOn);
        if (!target) {
            AGENT_LOG(m_context, Notice, "The stream ended before a message was sent: ", streamName,
                      ", size: ", bytes.size());
            return;
        }
        result = target->SendStreamData(bytes, lowPriority, asBefore);
    }
    if (result == StreamSend::Dropped) logDropped(streamName, bytes.size());
}

bool ChannelLink::sendRoutedDataAtOnce(const std::string& streamName, StreamType type,
                                       unsigned int size, std::string_view data, bool lowPriority) {
    VirtualChannel* const target = connectedChannel();
    if (!target) return false;
    const MessageBytes head = headOf(streamName, type, size, data);
    if (head.size() == 0) return true;
    const SplitBytes bytes = joined(head, data);
    const StreamSend result = target->SendStreamDataAtOnce(bytes, lowPriority);
    if (result == StreamSend::Dropped) logDropped(streamName, bytes.size());
    return result != StreamSend::NotSent;
}

void ChannelLink::logDropped(const std::string& streamName, std::size_t size) {
    AGENT_LOG(m_context, Notice,
              "The connection ended in the middle of a message, stream name: ", streamName,
              ", size: ", size);
}

std::shared_ptr<VDIFrameworkCommon::StandIn> ChannelLink::standIn() {
    VirtualChannel* const target = connectedChannel();
    return target ? target->StreamStandIn() : nullptr;
}

VirtualChannel* ChannelLink::connectedChannel() {
    OrderedLock lock(m_mutex, lock_order::leaf);
    return m_connected ? channel() : nullptr;
}

VirtualChannel* ChannelLink::waitForConnection(std::uint64_t& generation,
                                               const std::atomic<bool>& goesOn) {
    OrderedLock lock(m_mutex, lock_order::leaf);
    while (goesOn) {
        VirtualChannel* const target = channel();
        if (m_connected && target && m_generation != generation) {
            generation = m_generation;
            return target;
        }
        m_changed.wait(m_mutex);
    }
    return nullptr;
}

void ChannelLink::setChannel(VirtualChannel* channel) {
    VirtualChannel* const old = m_pChannel;
    change([&] { m_pChannel = channel; });
    if (old) old->WakeStreamSenders();
}

void ChannelLink::setConnected(bool connected) {
    change([&]() NORVO_REQUIRES(m_mutex) { m_connected = connected; });
    if (auto* const target = channel()) target->WakeStreamSenders();
}

void ChannelLink::change(const std::function<void()>& step) {
    OrderedLock lock(m_mutex, lock_order::leaf);
    step();
    ++m_generation;
    m_changed.notify_all();
}

void ChannelLink::wakeSenders() {
    {
        OrderedLock lock(m_mutex, lock_order::leaf);
        m_changed.notify_all();
    }
    if (auto* const target = channel()) target->WakeStreamSenders();
}

}  // namespace VirtualChannelAgent
