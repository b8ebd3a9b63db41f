// Shared by the channel tests: the kinds, a channel's two neighbours (the host below and the
// observer above), calls of a channel, and the runners that channels count.
#pragma once

#include <ostream>

#include "CitrixVirtualChannel.h"
#include "HostCallbacks.h"
#include "KRANRunner.h"
#include "PacketBytes.h"
#include "ProcessUtils.h"
#include "RDPVirtualChannel.h"
#include "TCPSocketVirtualChannel.h"
#include "TestSupport.h"
#include "VDIRunnerCounter.h"
#include "VMWareVirtualChannel.h"
#include "WorkRecord.h"

namespace testsupport {

using NorvoVirtualChannel::tc::TransportChannel;
using NorvoVirtualChannel::tc::WorkerThread;

struct Kind {
    const char* name;
    int type;
    int maxMsgSize;
    int breakTime;
    bool needsToBeActive;
    bool lowPriority;      // has a low priority
    unsigned int runners;  // counted by the constructor
    // Which messages pass: a after Shutdown(), b after ChannelActive(0), c after ChannelActive(1).
    const char* passAfterShutdown;
    std::unique_ptr<TransportChannel> (*make)(WorkerThread::Pause pause);
    TransportChannel& (*instance)();  // this process's instance
};
inline void PrintTo(const Kind& kind, std::ostream* out) { *out << kind.name; }

template <class Channel>
std::unique_ptr<TransportChannel> makeChannel(WorkerThread::Pause pause) {
    return std::make_unique<Channel>(std::move(pause));
}
template <class Channel>
TransportChannel& theChannel() {
    return *Channel::GetInstance();
}

namespace kinds {
using namespace NorvoVirtualChannel;
using namespace NorvoVirtualChannel::tc;
inline const Kind all[] = {
    {"Citrix", kCitrix, 4992, 3, false, true, 1, "", makeChannel<CitrixVirtualChannel>,
     theChannel<CitrixVirtualChannel>},
    {"VMWare", kVMware, 1000, 10, true, true, 1, "ac", makeChannel<VMWareVirtualChannel>,
     theChannel<VMWareVirtualChannel>},
    {"RDP", kRdp, 1500, 3, false, true, 0, "abc", makeChannel<RDPVirtualChannel>,
     theChannel<RDPVirtualChannel>},
    {"TCPSocket", kTcpSocket, 1500, 0, true, false, 1, "c", makeChannel<TCPSocketVirtualChannel>,
     theChannel<TCPSocketVirtualChannel>}};
}  // namespace kinds

// The packets of one message in wire format, in the order sent.
inline std::vector<std::string> packetsOf(const std::string& message, int maxPacketSize) {
    NorvoVirtualChannel::Packetization packetizer(nullptr, maxPacketSize);
    std::vector<std::string> wire;
    for (const auto& packet : packettest::cut(packetizer, message)) {
        wire.push_back(packettest::textOf(packet->WireBytes()));
    }
    return wire;
}

// The process's host while it lives: receives the packets that channels send; the outgoing gate is
// open.
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

    // Makes the worker wait in the next call of the append callback until goOn().
    void holdUp() { m_holdsUp = true; }
    bool waitUntilHeldUp() const { return m_entered.pass(); }
    void goOn() { m_door.open(); }

    std::vector<std::string> packets() const { return m_packets.entries(); }
    // The messages received so far.
    std::vector<std::string> messages() const {
        packettest::Receiver receiver;
        NorvoVirtualChannel::Packetization joiner(&receiver, 1500);
        for (const auto& packet : packets()) packettest::receive(joiner, packet);
        return receiver.messages;
    }
    // Whether `count` packets arrive within 20 s.
    bool waitFor(std::size_t count) const { return m_packets.waitFor(count); }

private:
    static int append(const void* data, std::uint32_t length, std::uintptr_t flag, void* context) {
        auto& self = *static_cast<FakeHost*>(context);
        if (self.m_holdsUp) {
            self.m_entered.open();
            self.m_door.pass();
        }
        EXPECT_EQ(flag, 1U);
        self.m_packets.add({static_cast<const char*>(data), length});
        return 7;
    }

    std::atomic<bool> m_holdsUp{false};
    Door m_entered;
    Door m_door;
    Journal m_packets;
};

// Records what a channel tells it: "up", "down", "shutdown" and the messages themselves.
class FakeObserver : public NorvoVirtualChannel::Observer {
public:
    // Runs inside each call, before it is recorded.
    std::function<void(const std::string&)> onCall;

    std::vector<std::string> calls() const { return m_calls.entries(); }
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
        m_calls.add(call);
    }

    Journal m_calls;
};

// How many runners are counted for this process.
inline unsigned int runners() {
    return VDIFrameworkCommon::VDIRunnerCounter::getInstance().count(
        VDIFrameworkCommon::ProcessUtils::getCurrentProcessId());
}

inline void forgetRunners() {
    while (runners() != 0) NorvoVirtualChannel::tc::removeRunner();
}

inline int send(TransportChannel& channel, const std::string& message, bool lowPriority = false) {
    return channel.SendData(message.data(), static_cast<unsigned int>(message.size()), lowPriority);
}

inline int receive(TransportChannel& channel, const std::string& packet) {
    return channel.ReceiveData(packet.data(), static_cast<unsigned int>(packet.size()));
}

}  // namespace testsupport
