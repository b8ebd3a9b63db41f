// The measurements of a whole path between two processes, the same for every kind.
#pragma once

#include "Harness.h"
#include "path/Path.h"

namespace bench {

// Ping-pong for `seconds`. Metrics: "p50" and "p99" of the one-way latency in µs (half of a round
// trip), "cpu" of the processes between the ends per message in µs.
void measurePathLatency(const PathRun& run, double seconds, Sample& sample);

// One way for `seconds`, with at most `window` messages (a multiple of 4) in flight. Metrics:
// "rate" in messages/s, "MB/s", "cpu" as above.
void measurePathStream(const PathRun& run, std::size_t window, double seconds, Sample& sample);

// The same in bursts of 50 ms, each after 100 ms without a message, timed from the first message of
// a burst to its last answer.
void measurePathBursts(const PathRun& run, std::size_t window, double seconds, Sample& sample);

// A path idle for `seconds`, after one round trip. Metrics: "cpu" of the processes between the
// ends, in % of a core; "wake-ups" per second of one of them, on average.
void measureIdlePath(const PathRun& run, double seconds, Sample& sample);

}  // namespace bench
