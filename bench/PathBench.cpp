// The whole path between two local processes: ours beside the same hops built from the simplest
// parts and beside relays that someone might use instead.
#include <array>
#include <map>
#include <optional>
#include <string>

#include "Harness.h"
#include "PacedKinds.h"
#include "PathMeasurement.h"
#include "path/HostPath.h"
#include "path/Path.h"

namespace {

using bench::atLeast;
using bench::atMost;
using bench::Measurement;
using bench::PathRun;
using bench::Sample;

constexpr char kOurs[] = "vcctl host";
constexpr char kParts[] = "simplest parts";
constexpr char kZeroMq[] = "ZeroMQ proxies";
constexpr char kSocat[] = "socat";
constexpr const char* kKinds[] = {kOurs, kParts, kZeroMq, kSocat, "direct TCP"};

struct Limits {
    double must;  // 0: not judged
    double ambition;
};

struct SizeRow {
    const char* label;
    std::size_t size;
    std::size_t window;  // messages in flight; more than 1001 in a queue would be dropped
    Limits zeroMqRate;
    Limits socatP50;
};

constexpr std::array<SizeRow, 4> kSizes{{
    {"64 B", 64, 400, {}, {0.9, 0.8}},
    {"1 KiB", 1024, 400, {}, {}},
    {"16 KiB", 16 * 1024, 64, {1.5, 2.0}, {}},
    {"64 KiB", 64 * 1024, 32, {2.2, 2.5}, {0.6, 0.5}},
}};

// Compared only with the simplest parts: others would take too long.
struct LargeRow {
    const char* label;
    std::size_t size;
    std::size_t window;
};

constexpr std::array<LargeRow, 4> kLargeSizes{{
    {"256 KiB", 256 * 1024, 16},
    {"1 MiB", 1024 * 1024, 8},
    {"4 MiB", 4 * 1024 * 1024, 4},
    {"16 MiB", 16 * 1024 * 1024, 4},
}};

constexpr std::size_t kAnswerSize = 64;

double secondsOf(const bench::Suite& suite, double full) { return suite.quick() ? full / 5 : full; }

Measurement declareLatency(bench::Suite& suite, const PathRun& run, double full) {
    return suite.measure(run.kind, [run, seconds = secondsOf(suite, full)](Sample& sample) {
        measurePathLatency(run, seconds, sample);
    });
}

Measurement declareStream(bench::Suite& suite, const PathRun& run, std::size_t window) {
    return suite.measure(run.kind, [run, window, seconds = secondsOf(suite, 0.5)](Sample& sample) {
        measurePathStream(run, window, seconds, sample);
    });
}

Measurement declareBursts(bench::Suite& suite, const PathRun& run, std::size_t window) {
    return suite.measure(run.kind, [run, window, seconds = secondsOf(suite, 1.5)](Sample& sample) {
        measurePathBursts(run, window, seconds, sample);
    });
}

// The measurements of the kinds that can run here.
using Measurements = std::map<std::string, Measurement>;

template <class Declare>
Measurements declareAll(const Declare& declare) {
    Measurements result;
    for (const char* kind : kKinds) {
        if (bench::reasonToLeaveOut(kind).empty()) result.emplace(kind, declare(kind));
    }
    return result;
}

// `metric` of ours against that of `floor`, where both can run here.
void declareGoal(bench::Suite& suite, const Measurements& all, const char* floor,
                 const std::string& metric, bench::Bounds bounds) {
    const bool unset = bounds.relation != bench::Relation::Report && bounds.must == 0;
    if (!all.contains(kOurs) || !all.contains(floor) || unset) return;
    suite.goal(metric, all.at(kOurs)[metric], all.at(floor)[metric], bounds);
}

void declareFastStream(bench::Suite& suite, const SizeRow& row, const Measurements& streaming) {
    declareGoal(suite, streaming, kParts, "MB/s", atLeast(1.0, 1.1));
    declareGoal(suite, streaming, kParts, "cpu", atMost(1.1, 1.0));
    declareGoal(suite, streaming, kSocat, "MB/s", atLeast(1.1, 1.4));
    suite.group(std::string(row.label) + " in bursts");
    const auto bursts = declareAll([&](const char* kind) {
        return declareBursts(suite, {kind, "tcp", row.size, kAnswerSize}, row.window);
    });
    declareGoal(suite, bursts, kParts, "MB/s", atLeast(1.0, 1.1));
}

void declareSize(bench::Suite& suite, const SizeRow& row) {
    suite.group(std::string(row.label) + " there and back");
    const auto latency = declareAll([&](const char* kind) {
        return declareLatency(suite, {kind, "tcp", row.size, row.size}, 0.4);
    });
    declareGoal(suite, latency, kParts, "p50", atMost(1.1, 0.9));
    declareGoal(suite, latency, kParts, "cpu", atMost(1.1, 1.0));
    declareGoal(suite, latency, kZeroMq, "p50", atMost(0.45, 0.4));
    declareGoal(suite, latency, kSocat, "p50", atMost(row.socatP50.must, row.socatP50.ambition));

    suite.group(std::string(row.label) + " one way");
    const auto streaming = declareAll([&](const char* kind) {
        return declareStream(suite, {kind, "tcp", row.size, kAnswerSize}, row.window);
    });
    declareGoal(suite, streaming, kZeroMq, "MB/s",
                atLeast(row.zeroMqRate.must, row.zeroMqRate.ambition));
    if (row.size == 64 * 1024) declareFastStream(suite, row, streaming);
}

void declareLarge(bench::Suite& suite, const LargeRow& row) {
    const char* const kinds[] = {kOurs, kParts};
    const auto declareBoth = [&](const auto& declare) {
        Measurements result;
        for (const char* kind : kinds) {
            if (bench::reasonToLeaveOut(kind).empty()) result.emplace(kind, declare(kind));
        }
        return result;
    };
    suite.group(std::string(row.label) + " there and back");
    const auto latency = declareBoth([&](const char* kind) {
        return declareLatency(suite, {kind, "tcp", row.size, row.size}, 1);
    });
    declareGoal(suite, latency, kParts, "p50", atMost(1.3, 1.1));
    suite.group(std::string(row.label) + " one way");
    const auto streaming = declareBoth([&](const char* kind) {
        return declareStream(suite, {kind, "tcp", row.size, kAnswerSize}, row.window);
    });
    declareGoal(suite, streaming, kParts, "MB/s", bench::reported());
}

void declarePaced(bench::Suite& suite, const bench::PacedKind& channel) {
    for (const std::size_t size : {std::size_t{64}, std::size_t{64 * 1024}}) {
        const std::string label = size == 64 ? "64 B" : "64 KiB";
        suite.group(channel.name + (", " + label) + " there and back");
        declareLatency(suite, {kOurs, channel.name, size, size}, 1);
    }
    suite.group(channel.name + std::string(", 64 KiB one way"));
    const PathRun run{kOurs, channel.name, 64 * 1024, kAnswerSize};
    const double most = mostMessagesPerSecond(channel, run.size);
    const auto ours =
        suite.measure(kOurs, [run, most, seconds = secondsOf(suite, 2)](Sample& sample) {
            constexpr std::size_t kWindow = 16;
            measurePathStream(run, kWindow, seconds, sample);
            sample.set("of the ceiling", sample.value("rate") / most, "");
        });
    suite.goal("of what the pauses allow", ours["of the ceiling"], atLeast(0.95, 0.98));
}

void declareSession(bench::Suite& suite) {
    suite.group("a session that carries nothing");
    const auto idle = suite.measure(kOurs, [](Sample& sample) {
        constexpr double kSeconds = 3;
        measureIdlePath({kOurs, "tcp", 64, 64}, kSeconds, sample);
    });
    suite.goal("cpu of both hosts", idle["cpu"], atMost(0.2, 0.1));
    // Eight, and one for each of the two streams.
    suite.goal("wake-ups of a host in a second", idle["wake-ups"], atMost(10, 5));

    suite.group("start to first message");
    const auto first = suite.measure(kOurs, [](Sample& sample) {
        sample.set("time", bench::millisecondsToFirstMessage("tcp"), "ms");
    });
    suite.goal("through a new stream", first["time"], atMost(300, 200));
}

}  // namespace

BENCH_SUITE(path, "the whole path between two local processes: latency, streaming, idle, start") {
    for (const char* kind : kKinds) {
        const std::string reason = bench::reasonToLeaveOut(kind);
        if (!reason.empty()) suite.note(std::string(kind) + " is left out: " + reason);
    }
    for (const SizeRow& row : kSizes) declareSize(suite, row);
    for (const LargeRow& row : kLargeSizes) declareLarge(suite, row);
    if (!bench::reasonToLeaveOut(kOurs).empty()) return;
    for (const bench::PacedKind& channel : bench::kPacedKinds) declarePaced(suite, channel);
    declareSession(suite);
}
