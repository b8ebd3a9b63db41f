// The two neighbours of a channel: the host below it and the observer above it.
#pragma once

#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "Eventually.h"
#include "HostCallbacks.h"
#include "PacketBytes.h"
#include "VirtualChannel.h"

namespace testsupport {

// The packets of one message as they go on the wire, in the order they are sent.
inline std::vector<std::string> packetsOf(const std::string& message, int maxPacketSize) {
    NorvoVirtualChannel::Packetization packetizer(nullptr, maxPacketSize);
    std::vector<std::string> wire;
    for (const auto& packet : packettest::cut(packetizer, message)) {
        wire.push_back(packettest::textOf(packet->WireBytes()));
    }
    return wire;
}

// The host of this process while it lives: takes the packets that channels send, with the outgoing
// gate open.
class FakeHost {
public:
    FakeHost() {
        host().setAppendBuffer(&FakeHost::append, this);
        host().setActive(true);
    }
    ~FakeHost() {
        host().setActive(false);
        host().setAppendBuffer(nullptr, nullptr);
    }
    FakeHost(const FakeHost&) = delete;
    FakeHost& operator=(const FakeHost&) = delete;

    static NorvoVirtualChannel::tc::HostCallbacks& host() {
        return NorvoVirtualChannel::tc::HostCallbacks::GetInstance();
    }

    // Runs on the worker's thread before a packet is noted.
    std::function<void()> onPacket;

    std::vector<std::string> packets() const {
        std::lock_guard lock(m_mutex);
        return m_packets;
    }
    // The messages in the packets so far.
    std::vector<std::string> messages() const {
        packettest::Receiver receiver;
        NorvoVirtualChannel::Packetization joiner(&receiver, 1500);
        for (const auto& packet : packets()) packettest::receive(joiner, packet);
        return receiver.messages;
    }
    // Whether `count` packets have come within 20 s.
    bool waitFor(std::size_t count) const {
        return eventually([&] { return packets().size() >= count; });
    }
    // Sets onPacket, also while packets come.
    void callOnPacket(std::function<void()> call) {
        std::lock_guard lock(m_mutex);
        onPacket = std::move(call);
    }
    bool everyFlagWasOne() const {
        std::lock_guard lock(m_mutex);
        return m_flagsAreOne;
    }

private:
    static int append(const void* data, std::uint32_t length, std::uintptr_t flag, void* context) {
        auto& self = *static_cast<FakeHost*>(context);
        std::unique_lock lock(self.m_mutex);
        const auto onPacket = self.onPacket;
        lock.unlock();
        if (onPacket) onPacket();
        lock.lock();
        self.m_packets.emplace_back(static_cast<const char*>(data), length);
        self.m_flagsAreOne = self.m_flagsAreOne && flag == 1;
        return 7;
    }

    mutable std::mutex m_mutex;
    std::vector<std::string> m_packets;
    bool m_flagsAreOne = true;
};

// Notes what a channel tells it: "up", "down", "shutdown" and the messages themselves.
class FakeObserver : public NorvoVirtualChannel::Observer {
public:
    // Runs inside each call, before it is noted.
    std::function<void(const std::string&)> onCall;

    std::vector<std::string> calls() const {
        std::lock_guard lock(m_mutex);
        return m_calls;
    }
    void OnVirtualChannelReceiveData(const void* data, unsigned int length) override {
        note({static_cast<const char*>(data), length});
    }
    void OnVirtualChannelAvailabilityChange(bool available) override {
        note(available ? "up" : "down");
    }
    void OnVirtualChannelShutdown() override { note("shutdown"); }
    void OnSessionAvailabilityChange(bool) override { note("session"); }
    void OnThinClientPlatformChange(unsigned int) override { note("platform"); }
    void OnChannelBlockedByPolicySetting(bool) override { note("policy"); }

private:
    void note(const std::string& call) {
        if (onCall) onCall(call);
        std::lock_guard lock(m_mutex);
        m_calls.push_back(call);
    }

    mutable std::mutex m_mutex;
    std::vector<std::string> m_calls;
};

}  // namespace testsupport
