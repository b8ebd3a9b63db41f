// Channels in memory: what an agent sends is kept until the test looks at it or has it delivered.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
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

class FakeChannel : public NorvoVirtualChannel::VirtualChannel {
public:
    struct Sent {
        std::string bytes;
        bool lowPriority = false;
        VirtualChannelAgent::VCMessage message() const {
            VirtualChannelAgent::VCMessage parsed;
            parsed.parseFromArray(bytes.data(), static_cast<unsigned int>(bytes.size()));
            return parsed;
        }
    };

    int type = 1;
    bool seamless = false;
    // Called from inside the agent's calls.
    std::function<void()> onSend;
    std::function<void(bool)> onStateChange;
    std::function<void()> onQuestion;
    std::function<bool()> onStreamData;  // whether it is taken
    std::function<void()> onWaitUntilSent;

    // To the agent, under the observer lock as a real channel does it.
    void deliver(const std::string& bytes) {
        callObserver([&](auto& observer) {
            observer.OnVirtualChannelReceiveData(bytes.data(),
                                                 static_cast<unsigned int>(bytes.size()));
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

    // From the agent: takes what it has sent since the last call.
    std::vector<Sent> takeSent() {
        std::lock_guard lock(m_sentMutex);
        return std::exchange(m_sent, {});
    }
    std::size_t sentCount() const {
        std::lock_guard lock(m_sentMutex);
        return m_sent.size();
    }
    std::vector<bool> stateChanges() const {
        std::lock_guard lock(m_sentMutex);
        return m_stateChanges;
    }

    int GetMaxMsgSize() override { return 4992; }
    int SendData(const void* data, unsigned int length, bool lowPriority) override {
        if (onSend) onSend();
        std::lock_guard lock(m_sentMutex);
        m_sent.push_back({std::string(static_cast<const char*>(data), length), lowPriority});
        return 0;
    }
    NorvoVirtualChannel::StreamSend SendStreamData(const void* data, unsigned int length,
                                                   bool lowPriority,
                                                   const std::function<bool()>& goesOn) override {
        if (onStreamData && !onStreamData()) return NorvoVirtualChannel::StreamSend::NotSent;
        return VirtualChannel::SendStreamData(data, length, lowPriority, goesOn);
    }
    void AddObserver(NorvoVirtualChannel::Observer* observer) override {
        std::lock_guard lock(m_observerMutex);
        m_observer = observer;
    }
    void RemoveObserver(NorvoVirtualChannel::Observer*) override { AddObserver(nullptr); }
    int GetType() override { return type; }
    void ResetChannel() override {}
    bool IsSeamlessMode() override {
        if (onQuestion) onQuestion();
        return seamless;
    }
    bool IsMultiSession() override {
        if (onQuestion) onQuestion();
        return false;
    }
    void* GetClientWindowHandleFromServerWindowHandle(void* serverWindow) override {
        if (onQuestion) onQuestion();
        return reinterpret_cast<void*>(reinterpret_cast<std::uintptr_t>(serverWindow) + 1);
    }
    void onAgentStateChange(bool connected) override {
        if (onStateChange) onStateChange(connected);
        std::lock_guard lock(m_sentMutex);
        m_stateChanges.push_back(connected);
    }
    bool WaitUntilSent(std::chrono::milliseconds) override {
        if (onWaitUntilSent) onWaitUntilSent();
        return true;
    }

private:
    std::mutex m_observerMutex;
    NorvoVirtualChannel::Observer* m_observer = nullptr;
    mutable std::mutex m_sentMutex;
    std::vector<Sent> m_sent;
    std::vector<bool> m_stateChanges;
};

// Delivers what each of the two channels has sent to the other one's agent, in order, until
// `predicate()` holds. False when that took more than 20 s.
template <class Predicate>
bool exchangeUntil(FakeChannel& a, FakeChannel& b, const Predicate& predicate) {
    return eventually([&] {
        for (const auto& sent : a.takeSent()) b.deliver(sent.bytes);
        for (const auto& sent : b.takeSent()) a.deliver(sent.bytes);
        return predicate();
    });
}

// Messages of the far side.
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
