// Streams that compete for one channel, with real hosts: how long the short messages of one wait
// beside the long ones of others, how the channel is shared, how much memory a host uses, and what
// a lost connection costs.
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "Harness.h"
#include "PacedKinds.h"
#include "flow/FlowMeasurement.h"

namespace {

using bench::atLeast;
using bench::atMost;
using bench::Bounds;
using bench::FlowRun;
using bench::Measurement;
using bench::Sample;

constexpr char kOurs[] = "vcctl host";
constexpr char kBaseline[] = "baseline";

constexpr Bounds mustBeAtMost(double must) { return atMost(must, must); }
constexpr Bounds mustBeAtLeast(double must) { return atLeast(must, must); }

// Our rows, and the baseline's if there is one.
struct Rows {
    Measurement ours;
    std::vector<Measurement> baseline;
};

using Measure = std::function<void(const FlowRun&, Sample&)>;

Rows declare(bench::Suite& suite, const std::string& channel, const Measure& measure) {
    const auto& settings = suite.settings();
    const auto row = [&](const char* name, const bench::HostBinaries& binaries) {
        const FlowRun run{binaries, channel, suite.quick() ? 2.0 : settings.seconds};
        return suite.measure(name, [run, measure](Sample& sample) { measure(run, sample); });
    };
    Rows rows{row(kOurs, bench::HostBinaries::ours()), {}};
    if (!settings.baselineLibrary.empty())
        rows.baseline.push_back(row(kBaseline, {settings.baselineVcctl, settings.baselineLibrary}));
    return rows;
}

void goalAgainstBaseline(bench::Suite& suite, const Rows& rows, const std::string& metric,
                         double must) {
    for (const Measurement& baseline : rows.baseline)
        suite.goal(metric, rows.ours[metric], baseline[metric], mustBeAtLeast(must));
}

void declareMedia(bench::Suite& suite, const std::string& kind, std::size_t files) {
    suite.group(kind + ", audio and video beside " + (files == 1 ? "a file" : "eight files"));
    const bool slow = kind == "vmware";
    const double limit = files == 1 ? (slow ? 60 : 30) : (slow ? 80 : 40);
    const auto rows = declare(suite, kind, [files](const FlowRun& run, Sample& sample) {
        measureMedia(run, files, sample);
    });
    suite.goal("audio p99", rows.ours["audio p99"], mustBeAtMost(limit));
    suite.goal("lost", rows.ours["lost"], mustBeAtMost(0));
}

void declareShares(bench::Suite& suite, const std::string& kind) {
    suite.group(kind + ", eight equal files");
    const auto rows = declare(suite, kind, bench::measureShares);
    suite.goal("deviation", rows.ours["deviation"], mustBeAtMost(15));
}

void declareMemory(bench::Suite& suite, const std::string& kind, std::size_t streams,
                   bool farIsStopped) {
    suite.group(kind + ", memory with " + std::to_string(streams) +
                (streams == 1 ? " stream" : " streams") + " without pause" +
                (farIsStopped ? ", the far host suspended" : ""));
    const auto rows = declare(suite, kind, [=](const FlowRun& run, Sample& sample) {
        measureMemory(run, streams, farIsStopped, sample);
    });
    suite.goal("most over idle", rows.ours["most"], mustBeAtMost(streams == 1 ? 16 : 32));
    suite.goal("5 s after, over idle", rows.ours["after"], mustBeAtMost(8));
    suite.goal("most of the far host", rows.ours["far"], bench::reported());
}

void declarePing(bench::Suite& suite, std::size_t bulk, double limit, double share) {
    suite.group("tcp, ping beside " + std::to_string(bulk) + " bulk streams");
    const auto rows = declare(suite, "tcp", [bulk](const FlowRun& run, Sample& sample) {
        measurePing(run, bulk, sample);
    });
    suite.goal("p50", rows.ours["p50"], mustBeAtMost(limit));
    goalAgainstBaseline(suite, rows, "bulk", share);
}

void declareOneStream(bench::Suite& suite, std::size_t kibibytes) {
    suite.group("tcp, one stream of " + std::to_string(kibibytes) + " KiB messages");
    const auto rows = declare(suite, "tcp", [kibibytes](const FlowRun& run, Sample& sample) {
        measureOneStream(run, kibibytes * 1024, sample);
    });
    goalAgainstBaseline(suite, rows, "MB/s", 0.97);
    suite.goal("lost", rows.ours["lost"], bench::reported());
}

void declareCeiling(bench::Suite& suite, const bench::PacedKind& kind, std::size_t kibibytes) {
    const std::size_t size = kibibytes * 1024;
    suite.group(kind.name + (", one stream of " + std::to_string(kibibytes)) + " KiB messages");
    const auto rows = declare(suite, kind.name, [kind, size](const FlowRun& run, Sample& sample) {
        measureOneStream(run, size, sample);
        sample.set("of the ceiling", sample.value("rate") / mostMessagesPerSecond(kind, size), "");
    });
    suite.goal("of what the pauses allow", rows.ours["of the ceiling"], mustBeAtLeast(0.98));
}

void declareOpening(bench::Suite& suite, const std::string& kind) {
    suite.group(kind + ", a new stream beside a file");
    const auto rows = declare(suite, kind, bench::measureOpening);
    suite.goal("longest", rows.ours["longest"], mustBeAtMost(100));
}

void declareCuts(bench::Suite& suite) {
    constexpr double kCutsPerSecond = 10;  // 100 in ten seconds of traffic plus their own duration
    const auto cuts = [](const FlowRun& run) {
        return static_cast<unsigned int>(run.seconds * kCutsPerSecond);
    };
    suite.group("tcp, cuts while 1000 messages of 1000 B a second are sent");
    const auto steady = declare(suite, "tcp", [cuts](const FlowRun& run, Sample& sample) {
        measureCuts(run, cuts(run), 1000, 1000, sample);
    });
    suite.goal("lost per stream and cut", steady.ours["lost"], mustBeAtMost(0.5));
    suite.group("tcp, cuts while 4 KiB messages are sent without pause");
    const auto flooded = declare(suite, "tcp", [cuts](const FlowRun& run, Sample& sample) {
        measureCuts(run, cuts(run), 4096, 0, sample);
    });
    suite.goal("lost per cut", flooded.ours["lost bytes"], mustBeAtMost(1));
}

void declareEnd(bench::Suite& suite, const std::string& kind) {
    suite.group(kind + ", the end of a host under load");
    const auto rows = declare(suite, kind, bench::measureEnd);
    suite.goal("flooded", rows.ours["flooded"], mustBeAtMost(200));
    suite.goal("far host suspended", rows.ours["stuck"], mustBeAtMost(200));
}

void declareOfEveryKind(bench::Suite& suite, const std::string& kind) {
    for (const std::size_t files : {1U, 8U}) declareMedia(suite, kind, files);
    declareShares(suite, kind);
    for (const std::size_t streams : {1U, 64U}) declareMemory(suite, kind, streams, false);
    declareMemory(suite, kind, 1, true);
    declareOpening(suite, kind);
    declareEnd(suite, kind);
}

}  // namespace

BENCH_SUITE(flow, "streams that compete for one channel: delays, shares, memory, cuts, the end") {
    if (suite.settings().baselineLibrary.empty())
        suite.note("without --baseline-library nothing is compared with an earlier build");
    for (const auto& kind : NorvoVirtualChannel::kChannelKinds)
        declareOfEveryKind(suite, kind.name);
    declarePing(suite, 4, 1, 0.95);
    declarePing(suite, 16, 1.5, 0.94);
    declarePing(suite, 64, 3, 0.86);
    for (const std::size_t kibibytes : {64U, 256U, 1024U}) declareOneStream(suite, kibibytes);
    for (const auto& kind : bench::kPacedKinds) {
        for (const std::size_t kibibytes : {8U, 64U}) declareCeiling(suite, kind, kibibytes);
    }
    declareCuts(suite);
}
