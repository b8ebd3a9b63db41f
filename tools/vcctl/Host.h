#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "ByteChannel.h"
#include "Capture.h"
#include "ChannelKind.h"
#include "IdleWatch.h"
#include "LocalMutex.h"
#include "NamedMutex.h"
#include "PacketLink.h"
#include "Plugin.h"

namespace vcctl {

struct HostOptions {
    std::string kind = "tcp";
    std::string pluginPath;
    std::string capture;
    bool takeOver = false;
    bool quiet = false;
    bool standardOutputIsTheChannel = false;
    bool connects = false;  // to a host that may be joined already
};

// Plays the remote-desktop client: loads the plug-in, and connects its channel to one peer at a
// time. Used only by the thread that creates it; the plug-in and the link have their own threads.
class Host {
public:
    // How the peer left.
    enum class End {
        WasHost,     // of this kind: it has greeted, and sent nothing but packets
        TurnedAway,  // it closed the connection before it greeted
        NoHost,      // it has sent what is no packet of this kind of host
        Other
    };

    // Throws CommandError, also if another host serves the session namespace and may not be
    // replaced.
    explicit Host(const HostOptions& options);
    ~Host();
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    // Connects the channel to the peer until one side ends it or the user stops. Further
    // connections to `listener` (if any) are turned away, unless the peer has not greeted as an
    // agent does: then it gives way. Pauses when the system lacks resources for another peer.
    End serve(support::Descriptor socket, const std::string& peer, int listener = -1);
    End serve(std::unique_ptr<ByteChannel> bytes, const std::string& peer, int listener = -1);

    // Says nothing about a connection until its peer greets: for one more attempt after
    // End::TurnedAway.
    void expectToBeTurnedAway(bool expects) { m_saysJoined = !expects; }

    // Prints one line for the user, not on standard output if that is the channel.
    void say(const std::string& text) const;

private:
    static int append(const void* data, std::uint32_t length, std::uintptr_t, void* context);
    void send(const void* data, std::uint32_t length);
    void receive(unsigned char* packet, std::uint32_t length);
    void noteGreeting(const unsigned char* packet, std::uint32_t length);
    void waitForEnd(PacketLink& link, const std::string& peer, int listener);
    End endOf(const PacketLink& link) const;
    void sayJoined(const std::string& peer);
    void turnAwayFrom(int listener);
    void noteLackOfSpace();
    void setLink(std::shared_ptr<PacketLink> link);
    void requireOnlyHost();

    const ChannelKind& m_kind;
    const bool m_quiet;
    const bool m_quietOutput;
    const bool m_connects;
    VDIFrameworkCommon::NamedMutex m_session;
    const hosts::Plugin m_plugin;
    hosts::IdleWatch m_idleWatch;
    std::unique_ptr<CaptureWriter> m_capture;
    std::atomic<int> m_appending = 0;
    std::atomic<std::uint64_t> m_bytesSent = 0;
    std::atomic<std::uint64_t> m_bytesReceived = 0;
    // Types of agent messages from the peer; the reader thread's, until the peer has greeted.
    unsigned int m_greetings = 0;
    std::atomic<bool> m_peerHasGreeted = false;
    bool m_saysJoined = true;  // without waiting for the greeting
    bool m_hasSaidJoined = false;
    bool m_endsLink = false;       // this side, not the peer
    bool m_hasTurnedAway = false;  // somebody, during this connection
    bool m_hasNotedLackOfSpace = false;
    // Held while the link's peer takes nothing: a link is closed before it is taken away here.
    VDIFrameworkCommon::LocalMutex m_mutex;
    VDIFrameworkCommon::LocalCondition m_linkChanged;
    std::shared_ptr<PacketLink> m_link NORVO_GUARDED_BY(m_mutex);
};

}  // namespace vcctl
