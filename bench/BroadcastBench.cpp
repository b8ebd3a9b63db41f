// A broadcast segment: the cost of many readers for its writer, and their latency.
#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <vector>

#include "Harness.h"
#include "LatencyRecorder.h"
#include "PeerProcess.h"
#include "SharedMemoryFactory.h"

namespace {

constexpr unsigned int kCapacity = 10240;

std::string uniqueName() {
    static std::atomic<int> next{0};
    return "broadcast" + std::to_string(next++);
}

std::vector<std::unique_ptr<bench::PeerProcess>> startReaders(const std::string& name, int count,
                                                              std::uint64_t messages) {
    std::vector<std::unique_ptr<bench::PeerProcess>> readers;
    for (int i = 0; i < count; ++i) {
        readers.push_back(std::make_unique<bench::PeerProcess>(
            "broadcast_reader", std::vector<std::string>{name, std::to_string(messages)}));
        bench::waitUntilReady(*readers.back());
    }
    return readers;
}

// Back to back. Metrics: "time" per message in µs, "rate" in messages/s, "p50" of the age of a
// message at its readers in µs.
void measureBroadcast(int readerCount, std::uint64_t messages, bench::Sample& sample) {
    const std::string name = uniqueName();
    const auto writer =
        shared_memory::getSharedMemoryInstance(shared_memory::ESharedMemoryType::Broadcast);
    if (!writer->Create(name, kCapacity)) throw std::runtime_error("cannot set the segment up");
    const auto readers = startReaders(name, readerCount, messages);
    const auto start = bench::nowNanoseconds();
    for (std::uint64_t i = 0; i < messages; ++i) {
        const auto now = bench::nowNanoseconds();
        if (!writer->WriteData(&now, sizeof now)) throw std::runtime_error("cannot write");
    }
    const auto taken = static_cast<double>(bench::nowNanoseconds() - start);
    bench::LatencyRecorder ages(readers.size());
    for (const auto& reader : readers) ages.add(std::stoull(reader->readLine()));
    sample.set("time", taken / bench::kNanosecondsPerMicrosecond / static_cast<double>(messages),
               "µs");
    sample.set("rate", static_cast<double>(messages) * 1e9 / taken, "msg/s");
    sample.set("p50", ages.percentile(0.5) / bench::kNanosecondsPerMicrosecond, "µs");
}

BENCH_ROLE(broadcast_reader) {
    const auto reader =
        shared_memory::getSharedMemoryInstance(shared_memory::ESharedMemoryType::Broadcast);
    if (!reader->Open(args.at(0), kCapacity)) return 1;
    bench::say("ready");
    const std::uint64_t messages = std::stoull(args.at(1));
    bench::LatencyRecorder ages(messages);
    const auto patience = bench::nowNanoseconds() + 60'000'000'000U;
    while (ages.count() < messages && bench::nowNanoseconds() < patience) {
        unsigned int length = 0;
        const std::string message = reader->ReadData(length, 0);
        std::uint64_t written = 0;
        if (message.size() != sizeof written) continue;
        std::memcpy(&written, message.data(), sizeof written);
        ages.add(bench::nowNanoseconds() - written);
    }
    std::printf("%.0f\n", ages.percentile(0.5));
    std::fflush(stdout);
    return ages.count() == messages ? 0 : 1;
}

}  // namespace

BENCH_SUITE(broadcast, "one writer, many readers of a broadcast segment") {
    suite.group("64-bit messages");
    const auto messages = suite.scaled(1000);
    const auto one = suite.measure(
        "1 reader", [messages](bench::Sample& sample) { measureBroadcast(1, messages, sample); });
    const auto ten = suite.measure("10 readers", [messages](bench::Sample& sample) {
        measureBroadcast(10, messages, sample);
    });
    suite.goal("time per message with 10 readers", ten["time"], one["time"], bench::reported());
    suite.goal("back to back with 1 reader", one["rate"], bench::atLeast(50000, 50000));
    suite.goal("age of a message at its reader", one["p50"], bench::atMost(20000, 1000));
}
