#include "HopMeasurement.h"

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <thread>

#include "CpuTime.h"
#include "LatencyRecorder.h"
#include "PeerProcess.h"
#include "floors/Hop.h"

namespace bench {

namespace {

struct HopPair {
    std::unique_ptr<Hop> there;  // from the measuring process to the peer
    std::unique_ptr<Hop> back;
};

HopPair openPair(const std::string& kindName, const std::string& name, std::size_t capacity,
                 bool measures) {
    const HopKind* kind = findHopKind(kindName);
    if (!kind) throw std::runtime_error("no such kind of hop");
    return {kind->open({name + ".there", capacity, measures, measures}),
            kind->open({name + ".back", capacity, !measures, measures})};
}

// Both processes, connected by a hop in each direction.
class HopSession {
public:
    HopSession(const HopRun& run, const std::string& task, std::size_t count)
        : m_name(uniqueName()),
          m_hops(openPair(run.kind, m_name, run.capacity, true)),
          m_peer("hop_peer", {task, run.kind, m_name, std::to_string(run.capacity),
                              std::to_string(run.size), std::to_string(count)}) {
        waitUntilReady(m_peer);
        m_hops.there->peerHasJoined();
        m_hops.back->peerHasJoined();
    }

    Hop& there() { return *m_hops.there; }
    Hop& back() { return *m_hops.back; }
    double cpuNanoseconds() const {
        return static_cast<double>(ownCpuNanoseconds() + cpuNanosecondsOfProcess(m_peer.pid()));
    }
    void start() { m_peer.writeLine("go"); }
    void end() {
        if (m_peer.wait(std::chrono::seconds(20)) != 0) throw std::runtime_error("the peer failed");
    }

private:
    static std::string uniqueName() {
        static std::atomic<unsigned> count{0};
        const char* session = std::getenv("NORVO_VDI_NAMESPACE");
        return std::string(session ? session : "nvb") + ".hop" + std::to_string(++count);
    }

    std::string m_name;
    HopPair m_hops;
    PeerProcess m_peer;
};

// A receiving program reads the message: only then does data in another processor's cache move
// over.
void look(const std::string& message) {
    std::uint64_t sum = 0;
    std::uint64_t word = 0;
    for (std::size_t at = 0; at + sizeof word <= message.size(); at += sizeof word) {
        std::memcpy(&word, message.data() + at, sizeof word);
        sum += word;
    }
    doNotOptimize(sum);
}

void measurePingPong(const HopRun& run, Sample& sample) {
    const std::size_t warmUp = run.rounds / 10 + 1;
    HopSession session(run, "echo", run.rounds + warmUp);
    std::string message(run.size, 'x');
    LatencyRecorder roundTrips(run.rounds);
    double cpuBefore = 0;
    session.start();
    for (std::size_t i = 0; i < run.rounds + warmUp; ++i) {
        if (i == warmUp) cpuBefore = session.cpuNanoseconds();
        const auto start = nowNanoseconds();
        session.there().send(message.data(), message.size());
        session.back().receive(message);
        look(message);
        if (i >= warmUp) roundTrips.add(nowNanoseconds() - start);
    }
    const double cpu = session.cpuNanoseconds() - cpuBefore;
    session.end();
    const double perOneWay = 2 * kNanosecondsPerMicrosecond;
    sample.set("p50", roundTrips.percentile(0.5) / perOneWay, "µs");
    sample.set("p99", roundTrips.percentile(0.99) / perOneWay, "µs");
    sample.set("cpu", cpu / (perOneWay * static_cast<double>(run.rounds)), "µs/msg");
}

void measureStream(const HopRun& run, Sample& sample) {
    HopSession session(run, "swallow", run.streamed);
    std::string message(run.size, 'x');
    std::string answer(1, ' ');
    session.start();
    const auto start = nowNanoseconds();
    for (std::size_t i = 0; i < run.streamed; ++i)
        session.there().send(message.data(), message.size());
    session.back().receive(answer);
    const double seconds = static_cast<double>(nowNanoseconds() - start) / 1e9;
    session.end();
    const double rate = static_cast<double>(run.streamed) / seconds;
    sample.set("rate", rate, "msg/s");
    sample.set("MB/s", rate * static_cast<double>(run.size) / 1e6, "MB/s");
}

void playPeer(const std::string& task, HopPair& hops, std::size_t size, std::size_t count) {
    std::string message(size, ' ');
    for (std::size_t i = 0; i < count; ++i) {
        hops.there->receive(message);
        look(message);
        if (task == "echo") hops.back->send(message.data(), message.size());
    }
    if (task == "swallow") hops.back->send("!", 1);
}

}  // namespace

void measureHop(const HopRun& run, Sample& sample) {
    measurePingPong(run, sample);
    measureStream(run, sample);
}

void measureIsolatedSends(const HopRun& run, std::size_t count, Sample& sample) {
    HopSession session(run, "swallow", count);
    const std::string message(run.size, 'x');
    std::string answer(1, ' ');
    LatencyRecorder sends(count);
    double stalled = 0;
    session.start();
    for (std::size_t i = 0; i < count; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(3));
        const auto start = nowNanoseconds();
        session.there().send(message.data(), message.size());
        const auto taken = nowNanoseconds() - start;
        sends.add(taken);
        if (taken >= 100'000'000) ++stalled;
    }
    session.back().receive(answer);
    session.end();
    sample.set("p50", sends.percentile(0.5) / kNanosecondsPerMicrosecond, "µs");
    sample.set("p99", sends.percentile(0.99) / kNanosecondsPerMicrosecond, "µs");
    sample.set("stalled", stalled, "");
}

void measureIdle(const HopRun& run, double seconds, Sample& sample) {
    HopSession session(run, "echo", 2);
    std::string message(run.size, 'x');
    const auto roundTrip = [&] {
        session.there().send(message.data(), message.size());
        session.back().receive(message);
    };
    session.start();
    roundTrip();
    const auto start = nowNanoseconds();
    const double cpuBefore = session.cpuNanoseconds();
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    const double cpu = session.cpuNanoseconds() - cpuBefore;
    const double elapsed = static_cast<double>(nowNanoseconds() - start);
    roundTrip();
    session.end();
    sample.set("cpu", 100 * cpu / elapsed, "%");
}

BENCH_ROLE(hop_peer) {
    try {
        HopPair hops = openPair(args.at(1), args.at(2), std::stoul(args.at(3)), false);
        say("ready");
        hear();
        playPeer(args.at(0), hops, std::stoul(args.at(4)), std::stoul(args.at(5)));
        return 0;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "%s: %s\n", args.at(1).c_str(), failure.what());
        return 1;
    }
}

}  // namespace bench
