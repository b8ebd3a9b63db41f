// Two real `vcctl host` processes with the real plug-in, joined over loopback TCP, for tests that
// need both ends of a channel:
//
//     HostPair hosts("rdp");
//     NorvoStreamClient::Client client;                      // on the near side
//     auto far = hosts.run(Side::Far, "reader", {"Media"});  // a CHILD_ROLE on the far side
//     hosts.kill(Side::Far);
//     hosts.start(Side::Far);
//
// The near side has the session namespace of the test program, so that its clients can run in the
// test itself: one pair at a time. The far side has its own. Each host has its own home. A host
// that misbehaves fails the test, which then shows both logs.
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
    // The hosts are joined when it returns.
    explicit HostPair(std::string kind = "tcp");
    // Stops the running hosts like stop(), and removes what is left of their sessions.
    ~HostPair();
    HostPair(const HostPair&) = delete;
    HostPair& operator=(const HostPair&) = delete;

    // As a user would: the host must exit by itself, with status 0.
    void stop(Side side);
    void kill(Side side);
    // Starts a stopped or killed host, and waits until both are joined again.
    void start(Side side);
    // Cuts the connection between the hosts, and waits until they are joined again.
    void reconnect();
    // Sends a signal, such as SIGSTOP or SIGCONT.
    void signal(Side side, int number) { host(side)->signal(number); }

    std::string log(Side side) const { return end(side).log(); }
    std::vector<std::string> environment(Side side) const { return end(side).environment(); }
    // Runs a role of the test program as a local process of that side.
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
