#include "Host.h"

#include <poll.h>
#include <sys/types.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <thread>

#include "AgentMark.h"
#include "CommandError.h"
#include "Endpoint.h"
#include "FreeMemory.h"
#include "PacketHeader.h"
#include "PluginLibrary.h"
#include "SegmentList.h"
#include "StopSignal.h"
#include "VCMessage.h"

namespace vcctl {

using NorvoVirtualChannel::Header;
using support::Descriptor;
using VDIFrameworkCommon::AgentMark;
using VDIFrameworkCommon::LocalLock;

namespace {

// Milliseconds. A connection that cannot be accepted, for lack of descriptors, stays pending.
constexpr int kPauseAfterFailure = 100;

// Without a locked operation per packet: one thread at a time changes the count.
void add(std::atomic<std::uint64_t>& count, std::uint32_t bytes) {
    count.store(count.load(std::memory_order_relaxed) + bytes, std::memory_order_relaxed);
}

}  // namespace

Host::Host(const HostOptions& options)
    : m_kind(channelKind(options.kind)),
      m_quiet(options.quiet),
      m_quietOutput(options.standardOutputIsTheChannel),
      m_connects(options.connects),
      m_plugin(loadPlugin(options.pluginPath)) {
    if (!options.takeOver) requireOnlyHost();
    if (!options.capture.empty()) {
        m_capture = std::make_unique<CaptureWriter>(
            options.capture, std::string(m_plugin.getChannelName()) + " " + m_kind.name);
    }
    m_plugin.InitialiseChannel(&Host::append, static_cast<std::uint32_t>(m_kind.type), this);
}

// With some kinds of channel, a call of append() may still be running.
Host::~Host() {
    constexpr int kMostWaits = 2000;
    m_plugin.Shutdown();
    setLink(nullptr);
    for (int i = 0; m_appending > 0 && i < kMostWaits; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    m_session.unlock();
}

// Two hosts in one session take each other's messages. The mark covers every kind of host, but only
// once it is connected; the lock covers only this tool.
void Host::requireOnlyHost() {
    constexpr auto kAtOnce = std::chrono::milliseconds(0);
    std::string who;
    if (const auto active = AgentMark::ofThisProcess().holderOf(geteuid())) {
        who = "the agent of process " + std::to_string(*active) + " is active";
    } else if (m_session.create("vcctl_host") && !m_session.lockFor(kAtOnce)) {
        who = "another vcctl host runs";
    }
    if (!who.empty())
        throw CommandError(who +
                           " in this session namespace. Set NORVO_VDI_NAMESPACE to another one, "
                           "or give --take-over to start beside it");
}

void Host::say(const std::string& text) const {
    if (m_quiet) return;
    // In one write, as another host may use the same terminal or pipe.
    (m_quietOutput ? std::cerr : std::cout) << text + '\n' << std::flush;
}

Host::End Host::serve(Descriptor socket, const std::string& peer, int listener) {
    try {
        return serve(overSocket(std::move(socket)), peer, listener);
    } catch (const CommandError& error) {
        say("not joined to " + peer + ": " + error.what());
        StopSignal::wait(kPauseAfterFailure);
        return End::Other;
    }
}

Host::End Host::serve(std::unique_ptr<ByteChannel> bytes, const std::string& peer, int listener) {
    StopSignal::takeHangUp();  // one that came while there was nothing to drop
    m_greetings = 0;
    m_peerHasGreeted = false;
    m_hasSaidJoined = false;
    m_endsLink = false;
    m_hasTurnedAway = false;
    std::shared_ptr<PacketLink> link;
    try {
        link = std::make_shared<PacketLink>(
            std::move(bytes), m_kind.maxPacket,
            [this](unsigned char* packet, std::uint32_t length) { receive(packet, length); });
    } catch (const std::system_error& error) {
        say("not joined to " + peer + ": " + error.what());
        StopSignal::wait(kPauseAfterFailure);
        return End::Other;
    }
    setLink(link);
    if (m_saysJoined) sayJoined(peer);
    m_idleWatch.setActive(m_plugin, true);
    waitForEnd(*link, peer, listener);
    const End end = endOf(*link);
    link->end("this host stops");
    m_idleWatch.setActive(m_plugin, false);
    setLink(nullptr);
    const bool isTurnedAway = m_connects && end == End::TurnedAway;
    if (m_hasSaidJoined || !isTurnedAway)
        say("left " + peer + ": " +
            (isTurnedAway ? "the other end closed the connection before it greeted: another host "
                            "may be joined there already"
                          : link->closeReason()));
    return end;
}

void Host::sayJoined(const std::string& peer) {
    if (!m_hasSaidJoined) say("joined to " + peer);
    m_hasSaidJoined = true;
}

Host::End Host::endOf(const PacketLink& link) const {
    if (link.sawForeignBytes()) return End::NoHost;
    if (m_peerHasGreeted) return End::WasHost;
    return m_endsLink || StopSignal::requested() ? End::Other : End::TurnedAway;
}

void Host::waitForEnd(PacketLink& link, const std::string& peer, int listener) {
    // A running agent greets at once.
    constexpr auto kLongestSilence = std::chrono::seconds(2);
    constexpr int kLookAtMemory = 1000;  // ms, as the next
    constexpr int kLookAtGreeting = 100;
    MemoryAfterTraffic memory;
    const auto begun = std::chrono::steady_clock::now();
    pollfd waited[3] = {{link.closedDescriptor(), POLLIN, 0},
                        {StopSignal::descriptor(), POLLIN, 0},
                        {listener, POLLIN, 0}};
    for (;;) {
        if (StopSignal::takeHangUp()) {
            m_endsLink = true;
            link.close("dropped on request");
        }
        const int events = poll(waited, 3, m_hasSaidJoined ? kLookAtMemory : kLookAtGreeting);
        if (m_peerHasGreeted) sayJoined(peer);
        if (events == 0) {
            memory.look(m_bytesSent + m_bytesReceived);
            noteLackOfSpace();
            m_idleWatch.tellAgain(m_plugin);
        }
        if (events <= 0) continue;
        if (waited[1].revents) StopSignal::drain();
        if (waited[0].revents || StopSignal::requested()) return;
        if (!waited[2].revents) continue;
        if (!m_peerHasGreeted && std::chrono::steady_clock::now() - begun > kLongestSilence) {
            m_endsLink = true;
            link.close("it has not greeted as an agent does, and another host is waiting");
            return;
        }
        turnAwayFrom(listener);
    }
}

// It may try again and again.
void Host::turnAwayFrom(int listener) {
    const Descriptor other = acceptFrom(listener);
    if (!other) {
        StopSignal::wait(kPauseAfterFailure);
        return;
    }
    if (!m_hasTurnedAway) say("turned away a second connection: a host is joined already");
    m_hasTurnedAway = true;
}

// The agent logs it, and tries again every second.
void Host::noteLackOfSpace() {
    const bool lacks = isSharedMemoryFull() && !hasInfoSegments();
    if (lacks && !m_hasNotedLackOfSpace)
        std::fprintf(stderr,
                     "vcctl: no space is left in the shared memory, so that no local program can "
                     "use this host: remove what fills it (on Linux /dev/shm)\n");
    m_hasNotedLackOfSpace = lacks;
}

int Host::append(const void* data, std::uint32_t length, std::uintptr_t, void* context) {
    auto* const host = static_cast<Host*>(context);
    ++host->m_appending;
    host->m_idleWatch.noteSent();
    host->send(data, length);
    --host->m_appending;
    return 0;
}

// A closed link accepts nothing: packets that the plug-in has not yet passed on are not lost
// in it while the plug-in is about to be told.
void Host::send(const void* data, std::uint32_t length) {
    LocalLock lock(m_mutex);
    if (!m_link) return;
    add(m_bytesSent, length);
    if (m_capture) m_capture->write(Direction::Outbound, data, length);
    if (m_link->send(data, length)) return;
    for (const auto left = m_link; m_link == left;) m_linkChanged.wait(m_mutex);
}

void Host::receive(unsigned char* packet, std::uint32_t length) {
    add(m_bytesReceived, length);
    if (m_capture) m_capture->write(Direction::Inbound, packet, length);
    if (!m_peerHasGreeted) noteGreeting(packet, length);
    m_plugin.ReceiveData(packet, length);
}

// The peer requests the connection and answers this side's request: more than one packet.
void Host::noteGreeting(const unsigned char* packet, std::uint32_t length) {
    using VirtualChannelAgent::MessageTypeEnum;
    constexpr std::uint32_t kTypeAt = sizeof(Header) + 4;
    if (length <= kTypeAt) return;
    const unsigned int type = packet[kTypeAt];
    if (type > MessageTypeEnum::CTL_CONNECTED) return;
    m_greetings |= 1U << type;
    constexpr unsigned int kAsked = 1U << MessageTypeEnum::CTL_CONNECT;
    constexpr unsigned int kAnswered =
        1U << MessageTypeEnum::CTL_CONNECT_READY | 1U << MessageTypeEnum::CTL_CONNECTED;
    m_peerHasGreeted = (m_greetings & kAsked) != 0 && (m_greetings & kAnswered) != 0;
}

void Host::setLink(std::shared_ptr<PacketLink> link) {
    {
        LocalLock lock(m_mutex);
        m_link = std::move(link);
    }
    m_linkChanged.notify_all();
}

}  // namespace vcctl
