#include "ReadmeTable.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ostream>
#include <set>
#include <string>

namespace bench {

namespace {

struct Place {
    const char* suite;
    const char* group;
};

struct Peer {
    const char* shown = nullptr;
    const char* measurement = nullptr;
};

// Up to three peers; the rest are empty.
using Peers = std::array<Peer, 3>;

struct Figure {
    const char* what;
    Place place;
    const char* measurement;
    const char* metric;
    Peers peers;
};

constexpr char kOurs[] = "vcctl host";
constexpr Peers kPathPeers{{{"the same hops without our formats", "simplest parts"},
                            {"ZeroMQ proxies", "ZeroMQ proxies"},
                            {"socat relays", "socat"}}};
constexpr Peers kParts{{{"the same hops without our formats", "simplest parts"}}};
constexpr Peers kProtobuf{{{"protobuf, objects used again", "protobuf, used again"}}};

constexpr Figure kFigures[] = {
    {"one hop through a segment, 64 B, p50",
     {"hop", "64 B"},
     "segment",
     "p50",
     {{{"Boost named mailbox", "Boost mailbox"}, {"Unix-domain socket", "Unix socket"}}}},
    {"the same without spinning",
     {"hop", "64 B"},
     "segment, no spin",
     "p50",
     {{{"pthread mailbox", "pthread"}}}},
    {"one hop, 64 KiB, p50",
     {"hop", "64 KiB"},
     "segment",
     "p50",
     {{{"Boost named mailbox", "Boost mailbox"}, {"Unix-domain socket", "Unix socket"}}}},
    {"one hop, 64 KiB, streaming",
     {"hop", "64 KiB"},
     "segment",
     "MB/s",
     {{{"Boost named mailbox", "Boost mailbox"}, {"Unix-domain socket", "Unix socket"}}}},
    {"message of 64 B, encode and decode", {"messages", "64 B"}, "VCMessage", "time", kProtobuf},
    {"message of 1 KiB, encode and decode", {"messages", "1 KiB"}, "VCMessage", "time", kProtobuf},
    {"64 KiB cut into packets of 1500 and joined",
     {"packets", "64 KiB at 1500, last packet first"},
     "cut + join",
     "time",
     {{{"one `std::vector` per packet", "one std::vector per packet"}}}},
    {"ping-pong over a named condition, parked",
     {"namedsync", "condition, ping-pong of two processes"},
     "NamedCondition, parks",
     "round trip",
     {{{"bare futex", "futex, parks"}}}},
    {"named mutex, lock and unlock, uncontended",
     {"namedsync", "mutex, nobody else"},
     "NamedMutex",
     "time",
     {}},
    {"broadcast, back to back, one reader",
     {"broadcast", "64-bit messages"},
     "1 reader",
     "rate",
     {}},
    {"whole path, two `vcctl host`s over loopback TCP, 64 B, p50 one way",
     {"path", "64 B there and back"},
     kOurs,
     "p50",
     kPathPeers},
    {"the hosts' processor time for it", {"path", "64 B there and back"}, kOurs, "cpu", kParts},
    {"whole path, 16 KiB, p50 one way",
     {"path", "16 KiB there and back"},
     kOurs,
     "p50",
     kPathPeers},
    {"whole path, 64 KiB, p50 one way",
     {"path", "64 KiB there and back"},
     kOurs,
     "p50",
     kPathPeers},
    {"whole path, 1 MiB, p50 one way", {"path", "1 MiB there and back"}, kOurs, "p50", kParts},
    {"whole path, 64 KiB, streaming", {"path", "64 KiB one way"}, kOurs, "MB/s", kPathPeers},
    {"the same in bursts of 50 ms", {"path", "64 KiB in bursts"}, kOurs, "MB/s", kPathPeers},
    {"Citrix, 64 KiB, share of what its pauses allow",
     {"path", "citrix, 64 KiB one way"},
     kOurs,
     "of the ceiling",
     {}},
    {"RDP, the same", {"path", "rdp, 64 KiB one way"}, kOurs, "of the ceiling", {}},
    {"VMware, the same", {"path", "vmware, 64 KiB one way"}, kOurs, "of the ceiling", {}},
    {"start of two hosts to the first message through a new stream",
     {"path", "start to first message"},
     kOurs,
     "time",
     {}},
    {"both hosts of a session that carries nothing",
     {"path", "a session that carries nothing"},
     kOurs,
     "cpu",
     {}},
    {"wake-ups of one of them in a second",
     {"path", "a session that carries nothing"},
     kOurs,
     "wake-ups",
     {}},
};

const Series* find(const std::vector<SuiteReport>& reports, const Figure& figure,
                   const std::string& measurement) {
    for (const SuiteReport& report : reports) {
        if (report.name != figure.place.suite) continue;
        for (const Outcome& outcome : report.outcomes) {
            if (outcome.group == figure.place.group && outcome.name == measurement &&
                outcome.failure.empty())
                return outcome.find(figure.metric);
        }
    }
    return nullptr;
}

// Three significant digits in a unit that keeps the number short.
std::string shown(const Series* series) {
    if (!series) return "–";
    double value = series->median();
    std::string unit = series->unit;
    if (unit == "ns" && value >= 1000) value /= 1000, unit = "µs";
    if (unit == "µs" && value >= 10000) value /= 1000, unit = "ms";
    if (unit == "MB/s" && value >= 10000) value /= 1000, unit = "GB/s";
    if (unit == "%") unit = "% of a core";
    char text[32];
    std::snprintf(text, sizeof text, value >= 1000 ? "%.0f" : "%.3g", value);
    return text + (unit.empty() ? "" : ' ' + unit);
}

// The ratio of the medians, with the lowest and highest of the repetitions.
std::string ratio(const Series* ours, const Series* peer) {
    if (!ours || !peer || peer->median() == 0) return "–";
    double lowest = ours->median() / peer->median();
    double highest = lowest;
    for (std::size_t i = 0; i < std::min(ours->values.size(), peer->values.size()); ++i) {
        const double each = ours->values[i] / peer->values[i];
        lowest = std::min(lowest, each);
        highest = std::max(highest, each);
    }
    char text[96];
    std::snprintf(text, sizeof text, "%.2g (%.2g – %.2g)", ours->median() / peer->median(), lowest,
                  highest);
    return text;
}

std::string escaped(const std::string& text) {
    std::string result;
    for (const char c : text)
        result += std::string(".+()^$[]{}|*?\\").find(c) == std::string::npos
                      ? std::string(1, c)
                      : std::string{'\\', c};
    return result;
}

}  // namespace

std::regex readmeFilter() {
    std::set<std::string> places;
    for (const Figure& figure : kFigures)
        places.insert(escaped(std::string(figure.place.suite) + '/' + figure.place.group + '/'));
    std::string expression;
    for (const std::string& place : places) expression += (expression.empty() ? "^(" : "|") + place;
    return std::regex(expression + ")");
}

void printReadmeTable(std::ostream& out, const std::vector<SuiteReport>& reports) {
    out << "| what | ours | beside | its figure | ratio (lowest – highest) "
           "|\n|---|---|---|---|---|\n";
    for (const Figure& figure : kFigures) {
        const Series* ours = find(reports, figure, figure.measurement);
        std::string start = std::string("| ") + figure.what + " | " + shown(ours);
        for (const Peer& peer : figure.peers) {
            const Series* theirs = peer.shown ? find(reports, figure, peer.measurement) : nullptr;
            if (!theirs) continue;
            out << start << " | " << peer.shown << " | " << shown(theirs) << " | "
                << ratio(ours, theirs) << " |\n";
            start = "| |";
        }
        if (start != "| |") out << start << " | | | |\n";
    }
}

}  // namespace bench
