// Measurements of streams that compete for one channel. Every function starts its own two hosts
// from `binaries`, and adds its metrics to `sample`.
#pragma once

#include <string>

#include "Harness.h"
#include "path/HostPath.h"

namespace bench {

struct FlowRun {
    HostBinaries binaries;
    std::string channel;
    double seconds;  // how long the traffic is measured
};

// Audio (50 messages/s of 160 B) and video (30 messages/s of 20 KiB) beside `files` streams of
// 64 KiB messages without pause. "audio p50", "audio p99", "video p99" in ms from the time a
// message is due; "lost" of audio and video; "files" in MB/s.
void measureMedia(const FlowRun& run, std::size_t files, Sample& sample);

// Eight streams without pause. "deviation": of the stream farthest from an eighth of the
// total, in % of that; "total" in MB/s.
void measureShares(const FlowRun& run, Sample& sample);

// Memory of the near host while `streams` write without pause, above its idle value: "most",
// and "after" five seconds without traffic; "far" is the far host's maximum. In MB. With
// `farIsStopped` the far host is suspended from one second into the traffic until its end.
void measureMemory(const FlowRun& run, std::size_t streams, bool farIsStopped, Sample& sample);

// 64 B there and back beside `bulk` streams of 64 KiB messages without pause: "p50" and "p99" in ms
// of the round trip; "bulk" in MB/s of all together.
void measurePing(const FlowRun& run, std::size_t bulk, Sample& sample);

// One stream without pause: "rate" in messages/s and "MB/s" at the far end, "lost" in % of them.
void measureOneStream(const FlowRun& run, std::size_t size, Sample& sample);

// New streams beside one without pause: "median" and "longest" time until one is up, in ms.
void measureOpening(const FlowRun& run, Sample& sample);

// `cuts` of the connection while four streams send `size` bytes `perSecond` times (0: without
// pause). "lost" is in messages per stream and cut, "lost bytes" of all streams per cut;
// "sent" in messages/s.
void measureCuts(const FlowRun& run, unsigned int cuts, std::size_t size, double perSecond,
                 Sample& sample);

// Time from the stop signal until the near host is gone, in ms: "flooded", and "stuck" when the far
// host is suspended.
void measureEnd(const FlowRun& run, Sample& sample);

}  // namespace bench
