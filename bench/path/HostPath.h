// Our own path: two real hosts with the real library, each in its own session namespace,
// connected over loopback TCP; at each end a local process with the client library.
#pragma once

#include <filesystem>

#include "Path.h"
#include "PeerProcess.h"

namespace bench {

// The program and the library of a host.
struct HostBinaries {
    std::string vcctl;
    std::string library;
    // The binaries of this build.
    static HostBinaries ours();
};

class HostRelays : public PathRelays {
public:
    // Starts both hosts; they are connected when waitUntilJoined() returns.
    explicit HostRelays(const std::string& channel, HostBinaries binaries = HostBinaries::ours());
    // Ends them as a user would.
    ~HostRelays() override;
    HostRelays(const HostRelays&) = delete;
    HostRelays& operator=(const HostRelays&) = delete;

    // Call once after the start, and once after each cut of the connection (SIGHUP to a host).
    void waitUntilJoined();

    pid_t pid(PathEnd end) const { return end == PathEnd::Far ? m_far.pid() : m_near.pid(); }
    void signal(PathEnd end, int number) const;
    // Ends a host as a user would, and returns when it is gone.
    void end(PathEnd end);

    std::string address(PathEnd) const override { return ""; }
    std::vector<std::string> environment(PathEnd end) const override;
    std::vector<pid_t> processes() const override { return {m_far.pid(), m_near.pid()}; }

private:
    std::string sessionNamespace(PathEnd end) const;
    PeerProcess startHost(PathEnd end, const std::string& channel, const std::string& how,
                          const std::string& place) const;

    const HostBinaries m_binaries;
    const std::string m_name;
    const std::filesystem::path m_home;
    PeerProcess m_far;
    PeerProcess m_near;
};

// Milliseconds from the start of two hosts and two local processes until one local process has
// received the other's first message through a new stream.
double millisecondsToFirstMessage(const std::string& channel);

}  // namespace bench
