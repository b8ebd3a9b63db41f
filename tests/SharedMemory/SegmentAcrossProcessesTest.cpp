#include "SegmentSupport.h"

namespace {

using namespace segmenttest;

void killWriters(ESharedMemoryType type, unsigned int capacity, std::size_t readers, int kills) {
    const std::string name = uniqueName();
    std::deque<Checker> checkers(readers);
    std::vector<std::shared_ptr<SharedMemoryI>> segments;
    for (auto& checker : checkers) {
        segments.push_back(getSharedMemoryInstance(type));
        ASSERT_TRUE(segments.back()->Open(name, capacity));
        segments.back()->subscribeObserver(&checker);
    }
    std::mt19937 random(1);
    for (std::uint32_t generation = 1; generation <= static_cast<unsigned>(kills); ++generation) {
        ReadyChild writer("segmentSource",
                          {std::to_string(static_cast<int>(type)), name, std::to_string(capacity),
                           std::to_string(generation), "0"});
        const auto start = Clock::now();
        for (auto& checker : checkers)
            ASSERT_TRUE(eventually([&] { return checker.source() == generation; }));
        ASSERT_LT(since(start), milliseconds(readers == 1 ? 1500 : 20000)) << generation;
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 4000));
        writer.kill();
        ASSERT_EQ(writer.wait(), 128 + SIGKILL);
    }
}

TEST(SegmentAcrossProcesses, ReadersContinueAtOnceWithTheNextWriterAfterOneIsKilled) {
    killWriters(ESharedMemoryType::Plain, 64, 1, rounds(250));
    killWriters(ESharedMemoryType::Broadcast, 200, 2, rounds(50));
}

TEST(SegmentAcrossProcesses, AWriterContinuesWithALateReaderAndAfterOneIsKilled) {
    const std::string name = uniqueName();
    const auto writer = plain();
    ASSERT_TRUE(writer->Create(name, 64));
    std::atomic<bool> stop = false;
    auto writing = std::async([&] {
        for (std::uint32_t i = 0; !stop; ++i) write(*writer, numberedMessage(1, i, i % 200));
    });
    std::mt19937 random(2);
    for (int i = 0; i < rounds(250) && !testing::Test::HasFailure(); ++i) {
        ReadyChild sink("segmentSink", {name, "64"});
        const auto start = Clock::now();
        EXPECT_EQ(sink.readLine(), "good") << i;
        EXPECT_LT(since(start), milliseconds(1500)) << i;
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 3000));
        sink.kill();
        EXPECT_EQ(sink.wait(), 128 + SIGKILL);
    }
    stop = true;
    writer->Close();
}

}  // namespace
