#include <gtest/gtest.h>

#include <deque>
#include <future>
#include <random>

#include "ChildProcess.h"
#include "Rounds.h"
#include "SegmentSupport.h"

namespace {

using namespace segmenttest;
using namespace testsupport;

// What goes out to another process comes back.
class Echo {
public:
    explicit Echo(unsigned int capacity)
        : m_process("segmentEcho", {m_there, m_back, std::to_string(capacity)}) {
        EXPECT_TRUE(m_in->Open(m_back, capacity));
        EXPECT_EQ(m_process.readLine(), "ready");
        EXPECT_TRUE(m_out->Create(m_there, capacity));
    }
    ~Echo() {
        EXPECT_TRUE(write(*m_out, "quit"));
        EXPECT_EQ(m_process.wait(), 0);
    }
    Echo(const Echo&) = delete;
    Echo& operator=(const Echo&) = delete;

    std::string operator()(const std::string& message) {
        EXPECT_TRUE(write(*m_out, message));
        return read(*m_in);
    }
    void sendNothing() { EXPECT_TRUE(write(*m_out, "")); }

private:
    const std::string m_there = uniqueName();
    const std::string m_back = uniqueName();
    const std::shared_ptr<SharedMemoryI> m_out = plain();
    const std::shared_ptr<SharedMemoryI> m_in = plain();
    ChildProcess m_process;
};

TEST(SegmentAcrossProcesses, MessagesOfEveryLengthCrossBothWays) {
    constexpr unsigned int kCapacity = 65536;
    Echo echo(kCapacity);
    for (const std::size_t length :
         {1U, kCapacity - 1, kCapacity, kCapacity + 1, 10 * kCapacity + 7, 32U << 20U}) {
        const std::string message = numberedMessage({1, 1}, length).substr(0, length);
        echo.sendNothing();
        ASSERT_TRUE(echo(message) == message) << length;
    }
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
    EXPECT_EQ(checker.wrong(), "");
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

TEST(SegmentAcrossProcesses, IsolatedWritesNeverRunIntoATimeOut) {
    Echo echo(64);
    milliseconds longest{0};
    for (int i = 0; i < rounds(300); ++i) {
        const auto start = Clock::now();
        ASSERT_EQ(echo("isolated"), "isolated");
        longest = std::max(longest, since(start));
        std::this_thread::sleep_for(milliseconds(3));
    }
    EXPECT_LT(longest, milliseconds(1500));
}

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
    for (int generation = 1; generation <= kills; ++generation) {
        ChildProcess writer("segmentSource",
                            {std::to_string(static_cast<int>(type)), name, std::to_string(capacity),
                             std::to_string(generation), "0"});
        ASSERT_EQ(writer.readLine(), "ready");
        const auto start = Clock::now();
        for (auto& checker : checkers) {
            ASSERT_TRUE(eventually(
                [&] { return checker.source() == static_cast<std::uint32_t>(generation); }));
        }
        ASSERT_LT(since(start), milliseconds(readers == 1 ? 1500 : 20000)) << generation;
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 4000));
        writer.kill();
        ASSERT_EQ(writer.wait(), 128 + SIGKILL);
    }
    for (auto& checker : checkers) EXPECT_EQ(checker.wrong(), "");
}

TEST(SegmentAcrossProcesses, ReadersGoOnAtOnceWithEachWriterThatComesAfterOneThatWasKilled) {
    killWriters(ESharedMemoryType::Plain, 64, 1, rounds(250));
    killWriters(ESharedMemoryType::Broadcast, 200, 2, rounds(50));
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

}  // namespace
