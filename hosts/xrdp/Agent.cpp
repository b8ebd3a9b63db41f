#include "Agent.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>

#include "DesktopSession.h"
#include "PacketSplitter.h"

namespace hosts {

namespace {

// Milliseconds between two polls of the session.
constexpr int kWaitingPause = 300;
constexpr int kServingPause = 1000;
// xrdp's library complains on standard output at each attempt, so these get rarer.
constexpr auto kBlindPause = std::chrono::seconds(3);
constexpr auto kLongestBlindPause = std::chrono::seconds(60);
// chansrv may be restarted; a session without a display is over.
constexpr auto kLongestAbsence = std::chrono::seconds(5);

// True when there is something to read at `fd` within `milliseconds`.
bool waitFor(int fd, int milliseconds) {
    pollfd waited{fd, POLLIN, 0};
    return poll(&waited, 1, milliseconds) > 0;
}

}  // namespace

Agent::Agent(const std::string& library, int display) : m_display(display), m_plugin(library) {
    m_plugin.InitialiseChannel(&Agent::append, NORVO_CHANNEL_RDP, this);
}

Agent::~Agent() { m_plugin.Shutdown(); }

void Agent::say(const std::string& text) {
    if (text == m_said) return;
    m_said = text;
    std::cout << text << std::endl;
    m_plugin.LogMessage_VDI(NORVO_LEVEL_NOTABLE, ("norvo-xrdp-agent: " + text).c_str());
}

void Agent::run(int stop) {
    Clock::time_point nextBlindTry;
    auto blindPause = kBlindPause;
    do {
        const DesktopSession session = desktopSession(m_display);
        if (session.state != DesktopSession::None) {
            m_hadSession = true;
            m_lastSeen = Clock::now();
        }
        if (sessionHasEnded()) return say("the desktop's session has ended");
        if (session.state == DesktopSession::NoClient) {
            say("waiting for a client");
        } else if (session.state == DesktopSession::Attached) {
            if (!serve(stop, session.client))
                say("waiting: a client is there, but the channel cannot be opened");
        } else {
            say("waiting for xrdp's channel server of display :" + std::to_string(m_display));
            // There may be a session even if the system does not list the sockets.
            if (Clock::now() < nextBlindTry) continue;
            serve(stop, session.client);
            nextBlindTry = Clock::now() + blindPause;
            blindPause = std::min(2 * blindPause, kLongestBlindPause);
        }
    } while (!waitFor(stop, kWaitingPause));
}

bool Agent::sessionHasEnded() {
    return m_hadSession && Clock::now() - m_lastSeen > kLongestAbsence;
}

bool Agent::serve(int stop, std::uint64_t client) {
    auto channel = m_api.open(m_plugin.getChannelName());
    if (!channel) return false;
    setChannel(std::move(channel));
    say("channel open");
    m_idleWatch.setActive(m_plugin, true);
    const std::string why = passOnUntilTheEnd(stop, client);
    m_leaving = true;
    m_idleWatch.setActive(m_plugin, false);
    setChannel(nullptr);
    say("channel closed: " + why);
    return true;
}

std::string Agent::whyToClose(std::uint64_t client) {
    const DesktopSession session = desktopSession(m_display);
    if (session.state == DesktopSession::NoClient) return "the client has left";
    if (session.state != DesktopSession::Attached) return "";
    if (client != 0 && session.client != client)
        return "another client is there, or the same one again";
    m_lastSeen = Clock::now();
    m_hadSession = true;
    return "";
}

std::string Agent::passOnUntilTheEnd(int stop, std::uint64_t client) {
    PacketSplitter splitter(kRdpPacket);
    pollfd waited[2] = {{m_channel->socket(), POLLIN, 0}, {stop, POLLIN, 0}};
    auto nextLook = Clock::now();
    for (;;) {
        if (poll(waited, 2, kServingPause) < 0 && errno != EINTR) return std::strerror(errno);
        if (waited[1].revents) return "the agent stops";
        if (Clock::now() >= nextLook) {
            if (std::string why = whyToClose(client); !why.empty()) return why;
            m_idleWatch.tellAgain(m_plugin);
            nextLook = Clock::now() + std::chrono::milliseconds(kServingPause);
        }
        if (!waited[0].revents) continue;
        const auto room = splitter.room();
        const ssize_t got = recv(waited[0].fd, room.data(), room.size(), 0);
        if (got == 0) return "xrdp has closed it";
        if (got < 0 && errno != EAGAIN && errno != EINTR) return std::strerror(errno);
        if (got > 0)
            splitter.take(static_cast<std::size_t>(got),
                          [&](unsigned char* packet, std::uint32_t length) {
                              m_plugin.ReceiveData(packet, length);
                          });
    }
}

void Agent::setChannel(std::unique_ptr<XrdpApi::Channel> channel) {
    std::lock_guard lock(m_mutex);
    m_channel = std::move(channel);
    m_leaving = false;
}

int Agent::append(const void* data, std::uint32_t length, std::uintptr_t, void* self) {
    auto& agent = *static_cast<Agent*>(self);
    agent.m_idleWatch.noteSent();
    agent.send(static_cast<const unsigned char*>(data), length);
    return 0;
}

void Agent::send(const unsigned char* bytes, std::size_t size) {
    constexpr int kPause = 100;  // milliseconds between checks for the channel's end
    std::lock_guard lock(m_mutex);
    while (m_channel && !m_leaving && size > 0) {
        const ssize_t sent = ::send(m_channel->socket(), bytes, size, MSG_NOSIGNAL);
        if (sent > 0) {
            bytes += sent;
            size -= static_cast<std::size_t>(sent);
        } else if (errno == EAGAIN) {
            pollfd waited{m_channel->socket(), POLLOUT, 0};
            poll(&waited, 1, kPause);
        } else if (errno != EINTR) {
            return;  // the reading thread notices it, too
        }
    }
}

}  // namespace hosts
