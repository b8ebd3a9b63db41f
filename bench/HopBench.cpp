// One hop between two processes: ours beside the simplest alternatives.
#include <array>
#include <map>
#include <string>

#include "Harness.h"
#include "HopMeasurement.h"
#include "floors/Hop.h"

namespace {

using bench::atLeast;
using bench::atMost;
using bench::Measurement;

constexpr char kOurs[] = "segment";
constexpr char kOursNoSpin[] = "segment, no spin";
constexpr char kMailbox[] = "Boost mailbox";
constexpr char kPthread[] = "pthread";
constexpr char kSocket[] = "Unix socket";
constexpr std::size_t kSlot = 64 * 1024;
constexpr std::size_t kLargeSlot = 1024 * 1024;

struct Limits {
    double must;
    double ambition;
};

struct SizeRow {
    const char* label;
    std::size_t size;
    std::size_t rounds;
    std::size_t streamed;
    Limits mailboxP50;
    Limits socketP50;  // must 0: not judged
    Limits streaming;
};

constexpr std::array<SizeRow, 5> kSizes{{
    {"64 B", 64, 15000, 40000, {0.25, 0.15}, {0.25, 0.15}, {6, 10}},
    {"1 KiB", 1024, 15000, 40000, {0.30, 0.18}, {0.30, 0.18}, {5, 9}},
    {"16 KiB", 16 * 1024, 10000, 20000, {0.65, 0.52}, {0.50, 0.38}, {2.0, 2.8}},
    {"64 KiB", 64 * 1024, 5000, 10000, {0.95, 0.80}, {0.80, 0.62}, {1.3, 1.6}},
    {"1 MiB", 1024 * 1024, 250, 500, {0.80, 0.62}, {0, 0}, {1.3, 1.6}},
}};

using Measurements = std::map<std::string, Measurement>;

Measurements declareSize(bench::Suite& suite, const SizeRow& row) {
    Measurements result;
    suite.group(row.label);
    for (const auto& kind : bench::hopKinds()) {
        const bench::HopRun run{kind.name, row.size, kSlot, suite.scaled(row.rounds),
                                suite.scaled(row.streamed)};
        result.emplace(kind.name, suite.measure(kind.name, [run](bench::Sample& sample) {
            measureHop(run, sample);
        }));
    }
    return result;
}

void declareGoals(bench::Suite& suite, const SizeRow& row, const Measurements& all) {
    const auto& ours = all.at(kOurs);
    const auto& mailbox = all.at(kMailbox);
    suite.goal("p50", ours["p50"], mailbox["p50"],
               atMost(row.mailboxP50.must, row.mailboxP50.ambition));
    if (row.socketP50.must > 0) {
        suite.goal("p50", ours["p50"], all.at(kSocket)["p50"],
                   atMost(row.socketP50.must, row.socketP50.ambition));
    }
    suite.goal("streaming", ours["rate"], mailbox["rate"],
               atLeast(row.streaming.must, row.streaming.ambition));
    suite.goal("p50 without spinning", all.at(kOursNoSpin)["p50"], all.at(kPthread)["p50"],
               atMost(1.10, 1.0));
    if (row.size == 64) {
        suite.goal("p99", ours["p99"], mailbox["p99"], atMost(0.40, 0.15));
        suite.goal("cpu per message", ours["cpu"], mailbox["cpu"], atMost(0.5, 0.3));
    }
    if (row.size == 64 * 1024)
        suite.goal("cpu per message", ours["cpu"], mailbox["cpu"], atMost(1.6, 1.4));
}

// The cost of a slot that is much larger than the message.
void declareLargeSlot(bench::Suite& suite, const SizeRow& row, const Measurement& ours) {
    const bench::HopRun run{kOurs, row.size, kLargeSlot, suite.scaled(row.rounds),
                            suite.scaled(row.streamed)};
    const auto large = suite.measure("segment, 1 MiB slot",
                                     [run](bench::Sample& sample) { measureHop(run, sample); });
    suite.goal("p50 with a 1 MiB slot", large["p50"], ours["p50"], atMost(1.15, 1.05));
}

void declareQuietHop(bench::Suite& suite) {
    const bench::HopRun run{kOurs, 64, kSlot, 0, 0};
    const double seconds = suite.quick() ? 0.5 : 2;
    suite.group("idle");
    const auto idle = suite.measure(
        kOurs, [run, seconds](bench::Sample& sample) { measureIdle(run, seconds, sample); });
    suite.goal("cpu of both ends", idle["cpu"], atMost(0.2, 0.1));

    suite.group("3 ms apart");
    const auto isolated =
        suite.measure(kOurs, [run, count = suite.scaled(1000)](bench::Sample& sample) {
            measureIsolatedSends(run, count, sample);
        });
    suite.goal("sends that ran into a time-out", isolated["stalled"], atMost(0, 0));
}

}  // namespace

BENCH_SUITE(hop, "one hop between two processes: latency, streaming, processor time") {
    for (const SizeRow& row : kSizes) {
        const auto all = declareSize(suite, row);
        declareGoals(suite, row, all);
        if (row.size == 64) declareLargeSlot(suite, row, all.at(kOurs));
    }
    declareQuietHop(suite);
}
