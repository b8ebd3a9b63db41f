// Two real `vcctl host` processes with the real plug-in, joined over loopback TCP, for tests that
// need both ends of a channel:
//
//     HostPair hosts("rdp");
//     NorvoStreamClient::Client client;                      // of the near end
//     auto far = hosts.run(Side::Far, "reader", {"Media"});  // a CHILD_ROLE of the far end
//     hosts.kill(Side::Far);
//     hosts.start(Side::Far);
//
// The near end has the session namespace of the test program, so that its clients can live in the
// test itself: one pair at a time. The far end has one of its own. Each host has its own home.
// What a host does otherwise than it must is a failure of the test, which then shows both logs.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "UserEnd.h"

namespace testsupport {

enum class Side { Near, Far };

class HostPair {
public:
    // Joined when it returns.
    explicit HostPair(std::string kind = "tcp");
    // Ends the hosts that run as stop() does, and removes what is left of their sessions.
    ~HostPair();
    HostPair(const HostPair&) = delete;
    HostPair& operator=(const HostPair&) = delete;

    // As a user ends it: it must end by itself, with status 0.
    void stop(Side side);
    void kill(Side side);
    // Starts one that was stopped or killed, and waits until both are joined again.
    void start(Side side);
    // Ends the connection between the hosts, and waits until they are joined again.
    void reconnect();
    // Sends a signal, such as SIGSTOP and SIGCONT.
    void signal(Side side, int number) { host(side)->signal(number); }

    std::string log(Side side) const { return end(side).log(); }
    std::vector<std::string> environment(Side side) const { return end(side).environment(); }
    // A local process of a side: a role of the test program.
    ChildProcess run(Side side, const std::string& role, const std::vector<std::string>& args = {});

private:
    using Host = std::optional<support::Subprocess>;
    Host& host(Side side) { return m_hosts[static_cast<std::size_t>(side)]; }
    const UserEnd& end(Side side) const { return side == Side::Near ? m_near : m_far; }
    void launch(Side side);
    void awaitJoined();

    const std::string m_kind;
    const UserEnd m_near;
    const UserEnd m_far;
    std::string m_address = "127.0.0.1:0";
    std::array<Host, 2> m_hosts;
};

}  // namespace testsupport
