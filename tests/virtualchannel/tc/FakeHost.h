// The two neighbours of a channel: the host below it and the observer above it.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "HostCallbacks.h"
#include "Packets.h"
#include "VirtualChannel.h"

namespace testsupport {

using Bytes = std::vector<unsigned char>;

inline Bytes bytesOf(const std::string& text) { return {text.begin(), text.end()}; }

inline std::string patternOf(std::size_t length) {
    std::string text(length, '\0');
    for (std::size_t i = 0; i < length; ++i) text[i] = static_cast<char>(i * 31 + i / 251);
    return text;
}

// Joins packets back into messages.
class Joiner : public NorvoVirtualChannel::PacketizationObserver {
public:
    void OnFullPacketReceived(const void* data, unsigned int size) override {
        messages.emplace_back(static_cast<const char*>(data), size);
    }
    void add(const Bytes& wire) {
        const auto packet = NorvoVirtualChannel::Packet::Borrow(
            wire.data(), static_cast<unsigned int>(wire.size()));
        if (packet.isPacketValid()) m_packetizer.EnqueuePacket(&packet);
    }
    std::vector<std::string> messages;

private:
    NorvoVirtualChannel::Packetization m_packetizer{this, 1500};
};

// The packets of one message as they go on the wire, in the order they are sent.
inline std::vector<Bytes> packetsOf(const std::string& message, int maxPacketSize) {
    Joiner unused;
    NorvoVirtualChannel::Packetization packetizer(&unused, maxPacketSize);
    std::deque<NorvoVirtualChannel::Packet*> packets;
    packetizer.PacketizeData(message.data(), static_cast<unsigned int>(message.size()), packets);
    std::vector<Bytes> wire;
    for (auto* entry : packets) {
        const std::unique_ptr<NorvoVirtualChannel::Packet> packet(entry);
        const auto bytes = packet->WireBytes();
        const auto* first = reinterpret_cast<const unsigned char*>(bytes.data());
        wire.emplace_back(first, first + bytes.size());
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

    std::vector<Bytes> packets() const {
        std::lock_guard lock(m_mutex);
        return m_packets;
    }
    // The messages in the packets so far.
    std::vector<std::string> messages() const {
        Joiner joiner;
        for (const Bytes& packet : packets()) joiner.add(packet);
        return joiner.messages;
    }
    // Whether `count` packets have come within 20 s.
    bool waitFor(std::size_t count) const {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, std::chrono::seconds(20),
                                  [&] { return m_packets.size() >= count; });
    }
    bool everyFlagWasOne() const {
        std::lock_guard lock(m_mutex);
        return m_flagsAreOne;
    }

private:
    static int append(const void* data, std::uint32_t length, std::uintptr_t flag, void* context) {
        auto& self = *static_cast<FakeHost*>(context);
        if (self.onPacket) self.onPacket();
        const auto* first = static_cast<const unsigned char*>(data);
        std::lock_guard lock(self.m_mutex);
        self.m_packets.emplace_back(first, first + length);
        self.m_flagsAreOne = self.m_flagsAreOne && flag == 1;
        self.m_changed.notify_all();
        return 7;
    }

    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    std::vector<Bytes> m_packets;
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
