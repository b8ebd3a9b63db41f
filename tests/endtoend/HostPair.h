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

#include "UserEnd.h"

namespace testsupport {

enum class Side { Near, Far };

class HostPair {
public:
    // The hosts are joined when it returns.
    explicit HostPair(std::string kind = "tcp")
        : m_kind(std::move(kind)),
          m_near("nvt" + std::to_string(getpid())),
          m_far(m_near.name() + "far") {
        for (const Side side : kSides) launch(side);
        awaitJoined();
    }
    // Stops the running hosts like stop(), and removes what is left of their sessions.
    ~HostPair() {
        for (const Side side : kSides) {
            if (host(side)) stop(side);
            if (::testing::Test::HasFailure())
                std::fprintf(stderr, "log of the %s end:\n%s\n", nameOf(side), log(side).c_str());
        }
    }
    HostPair(const HostPair&) = delete;
    HostPair& operator=(const HostPair&) = delete;

    // As a user would: the host must exit by itself, with status 0.
    void stop(Side side) {
        signal(side, SIGTERM);
        EXPECT_EQ(host(side)->wait(20s), 0) << "the " << nameOf(side) << " host";
        host(side).reset();
    }
    void kill(Side side) {
        host(side)->kill();
        host(side).reset();
    }
    // Starts a stopped or killed host, and waits until both are joined again.
    void start(Side side) {
        launch(side);
        awaitJoined();
    }
    // Cuts the connection between the hosts, and waits until they are joined again.
    void reconnect() {
        signal(Side::Near, SIGHUP);
        awaitJoined();
    }
    // Sends a signal, such as SIGSTOP or SIGCONT.
    void signal(Side side, int number) { host(side)->signal(number); }

    std::string log(Side side) const { return end(side).log(); }
    Texts environment(Side side) const { return end(side).environment(); }
    // Runs a role of the test program as a local process of that side.
    ChildProcess run(Side side, const std::string& role, const Texts& args = {}) {
        return ChildProcess(role, args, environment(side));
    }

private:
    static constexpr Side kSides[] = {Side::Near, Side::Far};
    static const char* nameOf(Side side) { return side == Side::Near ? "near" : "far"; }

    std::optional<support::Subprocess>& host(Side side) {
        return m_hosts[static_cast<std::size_t>(side)];
    }
    const UserEnd& end(Side side) const { return side == Side::Near ? m_near : m_far; }
    void launch(Side side) {
        std::string command = "host --kind " + m_kind;
        command += (side == Side::Near ? " --listen " : " --connect ") + m_address;
        host(side).emplace(end(side).start(command));
        if (side == Side::Far) return;
        const std::string line = lineStarting(*host(side), "listening on ");
        m_address = line.substr(line.rfind(' ') + 1);
    }
    // Each host says so once per connection.
    void awaitJoined() {
        for (const Side side : kSides) lineStarting(*host(side), "joined to ");
    }

    const std::string m_kind;
    const UserEnd m_near;
    const UserEnd m_far;
    std::string m_address = "127.0.0.1:0";
    std::array<std::optional<support::Subprocess>, 2> m_hosts;
};

}  // namespace testsupport
