#include "flow/FlowMeasurement.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <csignal>
#include <fstream>
#include <random>
#include <stdexcept>
#include <thread>

#include "LatencyRecorder.h"
#include "flow/Traffic.h"

namespace bench {

namespace {

constexpr std::size_t kBulkSize = 64 * 1024;

void sleepFor(double seconds) {
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

// The time after which traffic has reached a steady state.
double warmUp(const FlowRun& run) { return std::min(1.0, run.seconds / 5); }

struct Joined : HostRelays {
    explicit Joined(const FlowRun& run) : HostRelays(run.channel, run.binaries) {
        waitUntilJoined();
    }
};

double residentMegabytes(pid_t process) {
    std::ifstream pages("/proc/" + std::to_string(process) + "/statm");
    double total = 0;
    double resident = 0;
    pages >> total >> resident;
    return resident * static_cast<double>(sysconf(_SC_PAGESIZE)) / 1e6;
}

// Samples a process's memory periodically while the object exists.
class MemoryWatch {
public:
    explicit MemoryWatch(pid_t process) : m_process(process), m_idle(residentMegabytes(process)) {}
    ~MemoryWatch() {
        m_ended = true;
        m_thread.join();
    }
    MemoryWatch(const MemoryWatch&) = delete;
    MemoryWatch& operator=(const MemoryWatch&) = delete;

    double most() const { return m_most - m_idle; }
    double now() const { return residentMegabytes(m_process) - m_idle; }

private:
    void watch() {
        while (!m_ended) {
            m_most = std::max(m_most.load(), residentMegabytes(m_process));
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    const pid_t m_process;
    const double m_idle;
    std::atomic<double> m_most{0};
    std::atomic<bool> m_ended{false};
    std::thread m_thread{[this] { watch(); }};
};

// Senders and receivers of the same streams.
struct Traffic {
    Traffic(const HostRelays& hosts, const std::vector<Flow>& flows)
        : receivers(hosts, streamsOf(flows)), senders(hosts, flows) {}
    Receivers receivers;
    Senders senders;
};

double megabytesPerSecond(const std::map<std::string, Received>& all, const std::string& prefix) {
    double sum = 0;
    for (const auto& [name, received] : all) {
        if (name.starts_with(prefix)) sum += received.perSecond() / 1e6;
    }
    return sum;
}

}  // namespace

void measureMedia(const FlowRun& run, std::size_t files, Sample& sample) {
    const Joined hosts(run);
    const auto perSecond = [&](double rate) {
        return static_cast<std::uint64_t>(rate * run.seconds);
    };
    std::vector<Flow> media{{"audio", 160, 50, perSecond(50)},
                            {"video", 20 * 1024, 30, perSecond(30)}};
    Traffic bulk(hosts, equalFlows("file", files, kBulkSize));
    Traffic watched(hosts, media);
    bulk.senders.start();
    sleepFor(warmUp(run));
    bulk.receivers.begin();
    watched.receivers.begin();
    watched.senders.start();
    auto sent = watched.senders.stop();
    const auto carried = bulk.receivers.report();
    bulk.senders.stop();
    watched.receivers.waitUntilQuiet();
    auto seen = watched.receivers.report();
    sample.set("audio p50", seen["audio"].p50, "ms");
    sample.set("audio p99", seen["audio"].p99, "ms");
    sample.set("video p99", seen["video"].p99, "ms");
    double lost = 0;
    for (const char* each : {"audio", "video"})
        lost += static_cast<double>(sent[each]) - static_cast<double>(seen[each].messages);
    sample.set("lost", lost, "");
    sample.set("files", megabytesPerSecond(carried, "file"), "MB/s");
}

void measureShares(const FlowRun& run, Sample& sample) {
    constexpr std::size_t kFiles = 8;
    const Joined hosts(run);
    Traffic traffic(hosts, equalFlows("file", kFiles, kBulkSize));
    traffic.senders.start();
    sleepFor(warmUp(run));
    traffic.receivers.begin();
    sleepFor(run.seconds);
    const auto seen = traffic.receivers.report();
    const double whole = megabytesPerSecond(seen, "file");
    double farthest = 0;
    for (const auto& [name, received] : seen) {
        const double share = received.perSecond() / 1e6 * kFiles / whole;
        farthest = std::max(farthest, std::fabs(share - 1));
    }
    sample.set("deviation", 100 * farthest, "%");
    sample.set("total", whole, "MB/s");
}

void measureMemory(const FlowRun& run, std::size_t streams, bool farIsStopped, Sample& sample) {
    constexpr double kAfterwards = 5;
    const Joined hosts(run);
    Traffic traffic(hosts, equalFlows("flood", streams, kBulkSize));
    const MemoryWatch near(hosts.pid(PathEnd::Near));
    const MemoryWatch far(hosts.pid(PathEnd::Far));
    traffic.senders.start();
    sleepFor(warmUp(run));
    if (farIsStopped) hosts.signal(PathEnd::Far, SIGSTOP);
    sleepFor(run.seconds);
    const double most = near.most();
    if (farIsStopped) hosts.signal(PathEnd::Far, SIGCONT);
    traffic.senders.stop();
    sleepFor(kAfterwards);
    sample.set("most", most, "MB");
    sample.set("after", near.now(), "MB");
    sample.set("far", far.most(), "MB");
}

void measurePing(const FlowRun& run, std::size_t bulk, Sample& sample) {
    const Joined hosts(run);
    Traffic traffic(hosts, equalFlows("bulk", bulk, kBulkSize));
    Ping ping(hosts);
    traffic.senders.start();
    sleepFor(warmUp(run));
    traffic.receivers.begin();
    const auto [p50, p99] = ping.run(run.seconds);
    sample.set("p50", p50, "ms");
    sample.set("p99", p99, "ms");
    sample.set("bulk", megabytesPerSecond(traffic.receivers.report(), "bulk"), "MB/s");
}

void measureOneStream(const FlowRun& run, std::size_t size, Sample& sample) {
    const Joined hosts(run);
    Traffic traffic(hosts, {{"Media", size, 0}});
    traffic.senders.start();
    sleepFor(warmUp(run));
    traffic.receivers.begin();
    sleepFor(run.seconds);
    const Received seen = traffic.receivers.report().at("Media");
    sample.set("rate", static_cast<double>(seen.messages) / seen.seconds, "msg/s");
    sample.set("MB/s", seen.perSecond() / 1e6, "MB/s");
    const auto all = static_cast<double>(seen.messages + seen.lost);
    sample.set("lost", all > 0 ? 100 * static_cast<double>(seen.lost) / all : 0, "%");
}

void measureOpening(const FlowRun& run, Sample& sample) {
    constexpr std::size_t kStreams = 10;
    const Joined hosts(run);
    Traffic traffic(hosts, {{"Media", kBulkSize, 0}});
    traffic.senders.start();
    sleepFor(warmUp(run));
    auto times = timesToOpen(hosts, kStreams);
    std::sort(times.begin(), times.end());
    sample.set("median", times[kStreams / 2], "ms");
    sample.set("longest", times.back(), "ms");
}

void measureCuts(const FlowRun& run, unsigned int cuts, std::size_t size, double perSecond,
                 Sample& sample) {
    constexpr std::size_t kStreams = 4;
    Joined hosts(run);
    auto flows = equalFlows("cut", kStreams, size);
    for (Flow& flow : flows) flow.perSecond = perSecond;
    Traffic traffic(hosts, flows);
    std::mt19937 random(1);
    std::uniform_real_distribution<double> pause(0.05, 0.25);
    traffic.senders.start();
    const auto begun = nowNanoseconds();
    for (unsigned int i = 0; i < cuts; ++i) {
        sleepFor(pause(random));
        hosts.signal(PathEnd::Near, SIGHUP);
        hosts.waitUntilJoined();
        traffic.receivers.waitUntilMoreComes();
    }
    sleepFor(1);
    const double seconds = static_cast<double>(nowNanoseconds() - begun) / 1e9;
    const auto sent = traffic.senders.stop();
    traffic.receivers.waitUntilQuiet();
    double all = 0;
    double lost = 0;
    for (const auto& [name, seen] : traffic.receivers.report()) {
        all += static_cast<double>(sent.at(name));
        lost += static_cast<double>(sent.at(name)) - static_cast<double>(seen.messages);
    }
    sample.set("lost", lost / kStreams / cuts, "msg");
    sample.set("lost bytes", lost * static_cast<double>(size) / cuts / 1e6, "MB");
    sample.set("sent", all / seconds, "msg/s");
}

void measureEnd(const FlowRun& run, Sample& sample) {
    for (const bool stuck : {false, true}) {
        Joined hosts(run);
        Traffic traffic(hosts, equalFlows("flood", 1, kBulkSize));
        traffic.senders.start();
        sleepFor(warmUp(run));
        if (stuck) hosts.signal(PathEnd::Far, SIGSTOP);
        sleepFor(run.seconds / 5);
        const auto begun = nowNanoseconds();
        hosts.end(PathEnd::Near);
        const double milliseconds = static_cast<double>(nowNanoseconds() - begun) / 1e6;
        if (stuck) hosts.signal(PathEnd::Far, SIGCONT);
        sample.set(stuck ? "stuck" : "flooded", milliseconds, "ms");
    }
}

}  // namespace bench
