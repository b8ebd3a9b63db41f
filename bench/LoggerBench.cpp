#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <stdexcept>
#include <string>

#include "Harness.h"
#include "LatencyRecorder.h"
#include "Log.h"
#include "support/TempDir.h"

namespace {

using testsupport::TempDir;

std::atomic<int> g_floorThreshold = 5;

// The log goes to a file during a measurement, and nowhere before and after.
class FileLog {
public:
    FileLog() { VirtualChannelLogger_init(m_folder / "bench.log"); }
    ~FileLog() { VirtualChannelLogger_init(""); }
    FileLog(const FileLog&) = delete;
    FileLog& operator=(const FileLog&) = delete;

private:
    TempDir m_folder;
};

template <class Body>
void timeEach(bench::Sample& sample, std::uint64_t count, Body body) {
    const auto start = bench::nowNanoseconds();
    for (std::uint64_t i = 0; i < count; ++i) body(i);
    const auto taken = static_cast<double>(bench::nowNanoseconds() - start);
    sample.set("time", taken / static_cast<double>(count), "ns");
}

// The same line with only the C library: time, text and a buffered file.
void plainLine(FILE* file, std::uint64_t number) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm utc{};
    gmtime_r(&now.tv_sec, &utc);
    char text[32];
    strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
    fprintf(file, "%s.%06ldZ %d/%ld INFO VirtualChannel %s:%d %s: sent %lu of %d bytes\n", text,
            now.tv_nsec / 1000, getpid(), syscall(SYS_gettid), "bench/LoggerBench", __LINE__,
            __func__, static_cast<unsigned long>(number), 64);
}

}  // namespace

BENCH_SUITE(logger, "log lines that are off and on") {
    const std::uint64_t offCalls = suite.scaled(20'000'000);
    const std::uint64_t lines = suite.scaled(200'000);

    suite.group("off");
    const auto branch = suite.measure("relaxed load + branch", [offCalls](bench::Sample& sample) {
        timeEach(sample, offCalls, [](std::uint64_t i) {
            if (g_floorThreshold.load(std::memory_order_relaxed) >= 6) bench::doNotOptimize(i);
        });
    });
    const auto off = suite.measure("trace line, threshold 5", [offCalls](bench::Sample& sample) {
        const FileLog log;
        timeEach(sample, offCalls,
                 [](std::uint64_t i) { NORVO_LOG(Trace, "sent ", i, " of ", 64, " bytes"); });
    });
    suite.goal("a line that is off, ns", off["time"], bench::atMost(2.0, 1.0));
    suite.goal("a line that is off", off["time"], branch["time"], bench::reported());

    suite.group("on");
    const auto plain = suite.measure("fprintf to a file", [lines](bench::Sample& sample) {
        const TempDir folder;
        FILE* file = fopen((folder / "plain.log").c_str(), "we");
        if (!file) throw std::runtime_error("cannot open a file");
        timeEach(sample, lines, [file](std::uint64_t i) { plainLine(file, i); });
        fclose(file);
    });
    const auto on = suite.measure("info line to the log file", [lines](bench::Sample& sample) {
        const FileLog log;
        timeEach(sample, lines,
                 [](std::uint64_t i) { NORVO_LOG(Info, "sent ", i, " of ", 64, " bytes"); });
    });
    suite.goal("a line that is on", on["time"], plain["time"], bench::atMost(1.0, 0.5));
}
