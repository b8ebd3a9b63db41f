#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <random>

#include "ChildProcess.h"
#include "Rounds.h"
#include "SegmentSupport.h"
#include "SharedMemoryFactory.h"

namespace {

using namespace segmenttest;
using testsupport::ChildProcess;
using testsupport::rounds;

std::shared_ptr<SharedMemoryI> plain() { return getSharedMemoryInstance(ESharedMemoryType::Plain); }

TEST(SegmentAcrossProcesses, MessagesOfEveryLengthCrossBothWays) {
    constexpr unsigned int kCapacity = 65536;
    const std::string there = uniqueName();
    const std::string back = uniqueName();
    const auto out = plain();
    const auto in = plain();
    ASSERT_TRUE(in->Open(back, kCapacity));
    ChildProcess echo("segmentEcho", {there, back, std::to_string(kCapacity)});
    ASSERT_EQ(echo.readLine(), "ready");
    ASSERT_TRUE(out->Create(there, kCapacity));
    for (const std::size_t length :
         {1U, kCapacity - 1, kCapacity, kCapacity + 1, 10 * kCapacity + 7, 32U << 20U}) {
        const std::string message = numberedMessage({1, 1}, length).substr(0, length);
        ASSERT_TRUE(write(*out, ""));
        ASSERT_TRUE(write(*out, message));
        EXPECT_TRUE(read(*in) == message) << length;
    }
    ASSERT_TRUE(write(*out, "quit"));
    EXPECT_EQ(echo.wait(), 0);
}

TEST(SegmentAcrossProcesses, ManyMessagesKeepContentAndOrder) {
    const auto count = static_cast<std::uint32_t>(rounds(100000));
    const std::string name = uniqueName();
    Checker checker;
    const auto reader = plain();
    ASSERT_TRUE(reader->Open(name, 64));
    reader->subscribeObserver(&checker);
    ChildProcess source("segmentSource", {"0", name, "64", "1", std::to_string(count)});
    source.writeLine("go");
    EXPECT_TRUE(eventually([&] { return checker.count() == count; }, std::chrono::seconds(60)));
    EXPECT_EQ(checker.wrong(), 0) << checker.firstWrong();
    EXPECT_EQ(source.wait(), 0);
}

TEST(SegmentAcrossProcesses, AReaderThatComesLateGetsTheMessage) {
    const std::string name = uniqueName();
    const auto writer = plain();
    ASSERT_TRUE(writer->Create(name, 64));
    const auto start = Clock::now();
    ChildProcess sink("segmentSink", {name, "64"});
    EXPECT_TRUE(write(*writer, numberedMessage({1, 1}, 100)));
    EXPECT_LT(since(start), milliseconds(1900));
    EXPECT_EQ(sink.readLine(), "ready");
    EXPECT_EQ(sink.readLine(), "good");
}

TEST(SegmentAcrossProcesses, AWriterThatComesLateWritesAtOnce) {
    const std::string name = uniqueName();
    const auto reader = plain();
    ASSERT_TRUE(reader->Open(name, 64));
    ChildProcess writer("segmentOneMessage", {name, "64"});
    EXPECT_EQ(read(*reader), "late writer");
    EXPECT_LT(std::stoi(writer.readLine()), 1000);
    EXPECT_EQ(writer.wait(), 0);
}

TEST(SegmentAcrossProcesses, IsolatedWritesNeverRunIntoATimeOut) {
    const std::string there = uniqueName();
    const std::string back = uniqueName();
    const auto out = plain();
    const auto in = plain();
    ASSERT_TRUE(in->Open(back, 64));
    ChildProcess echo("segmentEcho", {there, back, "64"});
    ASSERT_EQ(echo.readLine(), "ready");
    ASSERT_TRUE(out->Create(there, 64));
    milliseconds longest{0};
    for (int i = 0; i < rounds(300); ++i) {
        const auto start = Clock::now();
        ASSERT_TRUE(write(*out, "isolated"));
        ASSERT_EQ(read(*in), "isolated");
        longest = std::max(longest, since(start));
        std::this_thread::sleep_for(milliseconds(3));
    }
    EXPECT_LT(longest, milliseconds(1500));
    write(*out, "quit");
}

TEST(SegmentAcrossProcesses, AReaderGoesOnAfterEachWriterThatIsKilled) {
    const std::string name = uniqueName();
    Checker checker;
    const auto reader = plain();
    ASSERT_TRUE(reader->Open(name, 64));
    reader->subscribeObserver(&checker);
    std::mt19937 random(1);
    for (int generation = 1; generation <= rounds(250); ++generation) {
        ChildProcess writer("segmentSource", {"0", name, "64", std::to_string(generation), "0"});
        ASSERT_EQ(writer.readLine(), "ready");
        const auto start = Clock::now();
        ASSERT_TRUE(
            eventually([&] { return checker.source() == static_cast<std::uint32_t>(generation); }));
        ASSERT_LT(since(start), milliseconds(1500)) << "generation " << generation;
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 3000));
        writer.kill();
        ASSERT_EQ(writer.wait(), 128 + SIGKILL);
    }
    EXPECT_EQ(checker.wrong(), 0) << checker.firstWrong();
}

TEST(SegmentAcrossProcesses, AWriterGoesOnAfterEachReaderThatIsKilled) {
    const std::string name = uniqueName();
    const auto writer = plain();
    ASSERT_TRUE(writer->Create(name, 64));
    std::atomic<bool> stop = false;
    std::thread writing([&] {
        for (std::uint32_t i = 0; !stop; ++i) write(*writer, numberedMessage({1, i}, i % 200));
    });
    std::mt19937 random(2);
    for (int i = 0; i < rounds(250); ++i) {
        ChildProcess sink("segmentSink", {name, "64"});
        EXPECT_EQ(sink.readLine(), "ready");
        const auto start = Clock::now();
        EXPECT_EQ(sink.readLine(), "good") << i;
        EXPECT_LT(since(start), milliseconds(1500)) << i;
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 3000));
        sink.kill();
        EXPECT_EQ(sink.wait(), 128 + SIGKILL);
        if (HasFailure()) break;
    }
    stop = true;
    writer->Close();
    writing.join();
}

struct Idle {
    double wakes = 0;
    double processorShare = 0;
};

// Wake-ups per second and share of one processor of a child's threads other than its first.
Idle idleOf(const ChildProcess& child, std::chrono::seconds period) {
    const auto measure = [&] {
        Idle sum;
        const std::string tasks = "/proc/" + std::to_string(child.pid()) + "/task";
        for (const auto& task : std::filesystem::directory_iterator(tasks)) {
            if (task.path().filename() == std::to_string(child.pid())) continue;
            double nanoseconds = 0;
            std::ifstream(task.path() / "schedstat") >> nanoseconds;
            sum.processorShare += nanoseconds;
            std::ifstream status(task.path() / "status");
            for (std::string line; std::getline(status, line);) {
                if (line.starts_with("voluntary"))
                    sum.wakes += std::stod(line.substr(line.find(':') + 1));
            }
        }
        return sum;
    };
    const Idle before = measure();
    std::this_thread::sleep_for(period);
    const Idle after = measure();
    const auto seconds = static_cast<double>(period.count());
    return {(after.wakes - before.wakes) / seconds,
            (after.processorShare - before.processorShare) / seconds / 1e9};
}

TEST(SegmentAcrossProcesses, AnIdleReaderHardlyWakes) {
    if (!std::filesystem::exists("/proc/self/task")) GTEST_SKIP() << "no /proc";
    // Beside the read thread, the controller's checker wakes twice a second.
    // A sanitizer's own thread wakes, too.
    const double others = testsupport::kSanitized ? 20 : 2.5;
    const std::pair<const char*, double> types[] = {{"0", 10 + others}, {"1", 50 + others}};
    for (const auto& [type, wakes] : types) {
        ChildProcess reader("segmentIdleReader", {type, uniqueName()});
        ASSERT_EQ(reader.readLine(), "ready");
        const Idle idle = idleOf(reader, std::chrono::seconds(2));
        EXPECT_LE(idle.wakes, wakes) << type;
        EXPECT_GE(idle.wakes, 1) << type;
        EXPECT_LT(idle.processorShare, testsupport::kSanitized ? 0.05 : 0.005) << type;
    }
}

}  // namespace
