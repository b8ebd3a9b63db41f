// In-memory channels: what an agent sends is kept until the test takes it or has it delivered.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstring>
#include <functional>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Eventually.h"
#include "VCMessage.h"
#include "VirtualChannel.h"

namespace testsupport {

inline std::string wireOf(const VirtualChannelAgent::VCMessage& message) {
    const auto bytes = message.wireBytes();
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// The message's type and its fields: "6 Media 1 500".
inline std::string textOf(const VirtualChannelAgent::VCMessage& message) {
    using VirtualChannelAgent::VCMessage;
    std::ostringstream text;
    text << +message.rawMessageType();
    const auto add = [&](auto has, auto get) {
        if ((message.*has)()) text << ' ' << (message.*get)();
    };
    add(&VCMessage::hasStreamName, &VCMessage::getStreamName);
    add(&VCMessage::hasStreamType, &VCMessage::getStreamType);
    add(&VCMessage::hasStreamSize, &VCMessage::getStreamSize);
    add(&VCMessage::hasSupportedStreams, &VCMessage::getSupportedStreams);
    add(&VCMessage::hasChannelVersion, &VCMessage::getChannelVersion);
    add(&VCMessage::hasInternalVersion, &VCMessage::getInternalVersion);
    add(&VCMessage::hasClientVersion, &VCMessage::getClientVersion);
    char* data = nullptr;
    const auto length = message.hasRouteData() ? message.getRouteData(&data) : 0;
    if (length > 0) text << ' ' << std::string(data, length);
    if (message.hasUnsupportedMessageType()) text << ' ' << +message.getUnsupportedMessageType();
    return text.str();
}

class FakeChannel : public NorvoVirtualChannel::VirtualChannel {
public:
    struct Sent {
        std::string bytes;
        bool lowPriority = false;
        std::string text() const {
            VirtualChannelAgent::VCMessage message;
            message.parseFromArray(bytes.data(), static_cast<unsigned int>(bytes.size()));
            return textOf(message) + (lowPriority ? ", low priority" : "");
        }
    };

    int type = 1;
    bool seamless = false;
    std::atomic<int> refusals{0};  // how many more times stream data is refused
    // Called from inside the agent's calls, with "send", "up", "down", "wait" (until all is sent),
    // "forget" (incomplete messages) or "question".
    std::function<void(const std::string& call)> onCall = [](const std::string&) {};
    std::function<void(const Sent&)> onSent = [](const Sent&) {};
    // Gives away the memory of the message that is being delivered.
    std::function<VDIFrameworkCommon::MemoryBlock()> takeReceived = [this] {
        return std::move(m_received);
    };

    // To the agent, one call at a time. The bytes last only if their memory is taken.
    void deliver(const std::string& bytes) {
        callObserver([&](auto& observer) {
            m_received = VDIFrameworkCommon::MemoryBlock::allocate(bytes.size() + 1, 1);
            std::memcpy(m_received.data(), bytes.data(), bytes.size());
            observer.OnVirtualChannelReceiveData(m_received.data(),
                                                 static_cast<unsigned int>(bytes.size()));
            if (m_received) std::memset(m_received.data(), 'x', bytes.size());
            m_received = {};
        });
    }
    void deliver(const VirtualChannelAgent::VCMessage& message) { deliver(wireOf(message)); }
    template <class Call>
    void callObserver(const Call& call) {
        std::lock_guard lock(m_observerMutex);
        if (m_observer) call(*m_observer);
    }
    bool isObserved() {
        std::lock_guard lock(m_observerMutex);
        return m_observer != nullptr;
    }

    // Takes what the agent has sent since the last call.
    std::vector<Sent> takeSent() {
        std::lock_guard lock(m_sentMutex);
        return std::exchange(m_sent, {});
    }
    std::size_t sentCount() const {
        std::lock_guard lock(m_sentMutex);
        return m_sent.size();
    }

    int GetMaxMsgSize() override { return 4992; }
    int SendData(const void* data, unsigned int length, bool lowPriority) override {
        onCall("send");
        Sent sent{{static_cast<const char*>(data), length}, lowPriority};
        onSent(sent);
        std::lock_guard lock(m_sentMutex);
        m_sent.push_back(std::move(sent));
        return 0;
    }
    NorvoVirtualChannel::StreamSend SendStreamData(const VDIFrameworkCommon::SplitBytes& message,
                                                   bool lowPriority,
                                                   const std::function<bool()>&) override {
        if (refusals > 0 && refusals-- > 0) return NorvoVirtualChannel::StreamSend::NotSent;
        std::string bytes(message.size(), 0);
        message.copy(0, bytes.size(), reinterpret_cast<std::byte*>(bytes.data()));
        SendData(bytes.data(), static_cast<unsigned int>(bytes.size()), lowPriority);
        return NorvoVirtualChannel::StreamSend::Sent;
    }
    void AddObserver(NorvoVirtualChannel::Observer* observer) override {
        std::lock_guard lock(m_observerMutex);
        m_observer = observer;
    }
    void RemoveObserver(NorvoVirtualChannel::Observer*) override { AddObserver(nullptr); }
    int GetType() override { return type; }
    void ResetChannel() override {}
    bool IsSeamlessMode() override {
        onCall("question");
        return seamless;
    }
    bool IsMultiSession() override {
        onCall("question");
        return false;
    }
    void* GetClientWindowHandleFromServerWindowHandle(void* serverWindow) override {
        onCall("question");
        return reinterpret_cast<void*>(reinterpret_cast<std::uintptr_t>(serverWindow) + 1);
    }
    void onAgentStateChange(bool connected) override { onCall(connected ? "up" : "down"); }
    void ForgetIncompleteMessages() override { onCall("forget"); }
    VDIFrameworkCommon::MemoryBlock TakeReceivedMemory() override { return takeReceived(); }
    bool WaitUntilSent(std::chrono::milliseconds) override {
        onCall("wait");
        return true;
    }

private:
    VDIFrameworkCommon::MemoryBlock m_received;
    std::mutex m_observerMutex;
    NorvoVirtualChannel::Observer* m_observer = nullptr;
    mutable std::mutex m_sentMutex;
    std::vector<Sent> m_sent;
};

// Messages of the peer.
inline VirtualChannelAgent::VCMessage control(VirtualChannelAgent::MessageTypeEnum type) {
    VirtualChannelAgent::VCMessage message;
    message.setMessageType(type);
    return message;
}

inline VirtualChannelAgent::VCMessage aboutStream(VirtualChannelAgent::MessageTypeEnum type,
                                                  const std::string& name, unsigned int streamType,
                                                  unsigned int size = 1000) {
    auto message = control(type);
    message.setStreamName(name);
    message.setStreamType(streamType);
    message.setStreamSize(size);
    return message;
}

inline VirtualChannelAgent::VCMessage routed(const std::string& name, const std::string& data,
                                             unsigned int streamType = 0) {
    auto message = aboutStream(VirtualChannelAgent::CTL_S_ROUTE, name, streamType);
    message.setRouteData(data.data(), static_cast<unsigned int>(data.size()));
    return message;
}

}  // namespace testsupport
