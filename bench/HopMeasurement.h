// The measurements of a hop between two processes, the same for every kind.
#pragma once

#include <cstddef>
#include <string>

#include "Harness.h"

namespace bench {

struct HopRun {
    std::string kind;      // of hopKinds()
    std::size_t size;      // of a message, in bytes
    std::size_t capacity;  // of a slot, in bytes
    std::size_t rounds;    // of the ping-pong
    std::size_t streamed;  // messages sent one way
};

// Ping-pong and one-way stream. Metrics: "p50" and "p99" of the one-way latency in µs (half of a
// round trip), "cpu" of both processes per message in µs, "rate" in messages/s, "MB/s".
void measureHop(const HopRun& run, Sample& sample);

// `count` messages, 3 ms apart. Metrics: "p50" and "p99" of one send in µs, "stalled": how many
// sends took 100 ms or more.
void measureIsolatedSends(const HopRun& run, std::size_t count, Sample& sample);

// Two idle ends for `seconds`. Metric: "cpu" of both, in % of a core.
void measureIdle(const HopRun& run, double seconds, Sample& sample);

}  // namespace bench
