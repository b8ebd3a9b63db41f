// Local processes at the ends of a channel whose streams compete: some send at a fixed rate or
// without pause, some receive and time messages, some ping.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "PeerProcess.h"
#include "path/HostPath.h"

namespace bench {

// The messages sent on one stream.
struct Flow {
    std::string stream;
    std::size_t size;          // of each message, in bytes, at least 16
    double perSecond;          // 0: without pause
    std::uint64_t atMost = 0;  // messages; 0: until told to stop
};

// `count` flows that differ only in stream name.
std::vector<Flow> equalFlows(const std::string& stream, std::size_t count, std::size_t size);

std::vector<std::string> streamsOf(const std::vector<Flow>& flows);

// A process at the near end that sends the flows, each on its own thread.
class Senders {
public:
    // Returns once all streams are up.
    Senders(const HostRelays& hosts, const std::vector<Flow>& flows);
    void start() { m_process.writeLine("go"); }
    // Waits for the flows with a fixed number of messages; the others stop. Returns the number of
    // messages that each stream's segment has taken.
    std::map<std::string, std::uint64_t> stop();

private:
    PeerProcess m_process;
};

struct Received {
    std::uint64_t messages = 0;
    std::uint64_t bytes = 0;
    std::uint64_t lost = 0;  // numbers missing before the last one
    double p50 = 0;          // of the time since a message was due, in ms
    double p99 = 0;
    double seconds = 0;  // since the counting began
    double perSecond() const { return seconds > 0 ? static_cast<double>(bytes) / seconds : 0; }
};

// A process at the far end that receives everything on the streams.
class Receivers {
public:
    // The streams are open on return; they come up when the near end asks for them.
    Receivers(const HostRelays& hosts, const std::vector<std::string>& streams);
    // Discards the results so far, except for the numbers.
    void begin() { ask("begin"); }
    std::map<std::string, Received> report();
    // Wait until something has come on one of the streams, and until nothing has for half a second.
    void waitUntilMoreComes();
    void waitUntilQuiet();

private:
    std::uint64_t bytesSoFar();
    std::string ask(const std::string& what);
    PeerProcess m_process;
};

// 64 bytes there and back, one after the other.
class Ping {
public:
    explicit Ping(const HostRelays& hosts);
    // Runs for `seconds`; returns p50 and p99 of the round trip in ms. A ping not answered within
    // 10 s counts as 10 s, and is the last.
    std::pair<double, double> run(double seconds);

private:
    PeerProcess m_far;
    PeerProcess m_near;
};

// How long each of `count` new streams takes to be up at the near end, in ms.
std::vector<double> timesToOpen(const HostRelays& hosts, std::size_t count);

}  // namespace bench
