#include <gtest/gtest.h>

#include <deque>
#include <future>
#include <random>

#include "ChildProcess.h"
#include "LogCapture.h"
#include "Rounds.h"
#include "SegmentSupport.h"
#include "SharedMemoryBroadcast.h"

namespace {

using namespace segmenttest;
using testsupport::ChildProcess;
using testsupport::LogCapture;
using testsupport::rounds;

using ClockedBroadcast = Clocked<SharedMemoryBroadcast>;

// The writer's clock stands still, so that it never goes on for lack of patience.
class BroadcastTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(writer.Create(name, 64)); }

    // The writer's try and the write that follows, in one thread.
    bool canWriteNow() {
        if (!writer.LockWrite()) return false;
        writer.UnlockWrite();
        return true;
    }
    bool send(const std::string& message) {
        g_testTime += 100;
        return canWriteNow() && write(writer, message);
    }

    const std::string name = uniqueName();
    ClockedBroadcast writer;
};

TEST_F(BroadcastTest, EveryReaderGetsEveryMessageBeforeTheNextIsWritten) {
    ClockedBroadcast readers[3];
    for (auto& reader : readers) ASSERT_TRUE(reader.Open(name, 64));
    const RawSegment raw(name);
    EXPECT_EQ(raw.word64(8), 3);
    for (const char* message : {"one", "two", "three"}) {
        ASSERT_TRUE(send(message));
        EXPECT_EQ(raw.word64(8), 0);
        for (auto& reader : readers) {
            EXPECT_FALSE(canWriteNow());
            EXPECT_EQ(read(reader), message);
            EXPECT_EQ(read(reader), "");
        }
        EXPECT_EQ(raw.word64(8), 3);
    }
    EXPECT_EQ(raw.word64(24), 0);
    EXPECT_EQ(raw.word64(0), 0);
}

TEST_F(BroadcastTest, AMessageLiesThereAsOneChunk) {
    ClockedBroadcast reader;
    ASSERT_TRUE(reader.Open(name, 64));
    ASSERT_TRUE(send(std::string(64, 'x')));
    EXPECT_EQ(read(reader), std::string(64, 'x'));
    ASSERT_TRUE(send("abc"));
    const RawSegment raw(name);
    EXPECT_EQ(raw.word64(16), 2);
    EXPECT_EQ(raw.bytes(32, 16), std::string("\1\0\0\0\1\0\0\0\3\0\0\0\3\0\0\0", 16));
    EXPECT_EQ(raw.bytes(48, 3), "abc");
}

TEST_F(BroadcastTest, AReaderThatOpensIsNotTakenForOneThatHasRead) {
    ClockedBroadcast staying;
    ClockedBroadcast late;
    ASSERT_TRUE(staying.Open(name, 64));
    ASSERT_TRUE(send("one"));
    ASSERT_TRUE(late.Open(name, 64));
    EXPECT_FALSE(canWriteNow());
    EXPECT_EQ(read(staying), "one");
    EXPECT_EQ(read(late), "");
    ASSERT_TRUE(send("two"));
    EXPECT_EQ(read(late), "two");
    EXPECT_FALSE(canWriteNow());
    EXPECT_EQ(read(staying), "two");
    EXPECT_TRUE(canWriteNow());
}

TEST_F(BroadcastTest, AReaderThatClosesIsNotWaitedFor) {
    ClockedBroadcast staying;
    ASSERT_TRUE(staying.Open(name, 64));
    for (const bool readsFirst : {true, false}) {
        ClockedBroadcast leaving;
        ASSERT_TRUE(leaving.Open(name, 64));
        ASSERT_TRUE(send("one"));
        if (readsFirst) {
            EXPECT_EQ(read(leaving), "one");
        }
        leaving.Close();
        EXPECT_FALSE(canWriteNow());
        EXPECT_EQ(read(staying), "one");
        ASSERT_TRUE(send("two"));
        EXPECT_EQ(read(staying), "two");
        EXPECT_TRUE(canWriteNow());
    }
}

TEST_F(BroadcastTest, AReaderThatOnlyCountsAtOffset8IsWaitedForAsStated) {
    ClockedBroadcast reader;
    ASSERT_TRUE(reader.Open(name, 64));
    RawSegment raw(name);
    ASSERT_TRUE(send("one"));
    EXPECT_EQ(read(reader), "one");
    raw.put<long>(8, raw.word64(8) + 1);
    EXPECT_FALSE(canWriteNow());
    g_testTime += 2001;
    ASSERT_TRUE(send("two"));
    EXPECT_EQ(read(reader), "two");
    EXPECT_FALSE(canWriteNow());
    raw.put<long>(8, raw.word64(8) + 1);
    EXPECT_TRUE(canWriteNow());
}

TEST_F(BroadcastTest, AReaderThatIsGoneCostsOneWait) {
    ClockedBroadcast staying;
    ClockedBroadcast gone;
    ASSERT_TRUE(staying.Open(name, 64));
    ASSERT_TRUE(gone.Open(name, 64));
    ASSERT_TRUE(send("one"));
    EXPECT_EQ(read(staying), "one");
    g_testTime += 2000;
    EXPECT_FALSE(canWriteNow());
    g_testTime += 1;
    ASSERT_TRUE(send("two"));
    EXPECT_EQ(read(staying), "two");
    EXPECT_TRUE(canWriteNow());

    // It was only slow: it comes back with the newest message, and is waited for again.
    EXPECT_EQ(read(gone), "two");
    EXPECT_TRUE(canWriteNow());
    ASSERT_TRUE(send("three"));
    EXPECT_EQ(read(staying), "three");
    EXPECT_FALSE(canWriteNow());
    EXPECT_EQ(read(gone), "three");
    EXPECT_TRUE(canWriteNow());
}

TEST_F(BroadcastTest, ALateWriteDoesNotOvertakeAReaderInsideItsCopy) {
    ClockedBroadcast reader;
    ASSERT_TRUE(reader.Open(name, 64));
    const RawSegment raw(name);
    ASSERT_TRUE(send("one"));
    ASSERT_TRUE(reader.LockRead());
    g_testTime += 2001;
    EXPECT_FALSE(canWriteNow());
    g_testTime += 499;
    EXPECT_FALSE(canWriteNow());
    reader.UnlockRead();
    EXPECT_TRUE(canWriteNow());

    // One that died there is not waited for any longer, and leaves nothing behind.
    ASSERT_TRUE(reader.LockRead());
    EXPECT_FALSE(canWriteNow());
    g_testTime += 500;
    EXPECT_TRUE(canWriteNow());
    EXPECT_EQ(raw.word64(24), 0);
    reader.UnlockRead();
    EXPECT_EQ(raw.word64(24), 0);
}

TEST_F(BroadcastTest, SeveralReadersInsideHoldTheWriterUpForAsLongAsStated) {
    ClockedBroadcast reader;
    ASSERT_TRUE(reader.Open(name, 64));
    const RawSegment raw(name);
    ASSERT_TRUE(send("one"));
    EXPECT_EQ(read(reader), "one");
    ASSERT_TRUE(reader.LockRead());
    ASSERT_TRUE(reader.LockRead());
    EXPECT_FALSE(canWriteNow());
    g_testTime += 2001;
    EXPECT_TRUE(canWriteNow());
    EXPECT_EQ(raw.word64(24), 0);
}

TEST_F(BroadcastTest, ACountOfReadyReadersThatIsLostIsRaisedAgain) {
    ClockedBroadcast reader;
    ASSERT_TRUE(reader.Open(name, 64));
    RawSegment raw(name);
    raw.put<long>(8, 0);
    EXPECT_FALSE(canWriteNow());
    EXPECT_EQ(read(reader), "");
    EXPECT_EQ(read(reader), "");
    EXPECT_TRUE(send("one"));
    EXPECT_EQ(read(reader), "one");

    // Not when it was 0 for a moment only, however often.
    for (const long count : {0L, 1L, 0L}) {
        raw.put<long>(8, count);
        EXPECT_EQ(read(reader), "");
        EXPECT_EQ(raw.word64(8), count);
    }
}

TEST_F(BroadcastTest, OpeningLeavesTheCountOfReadersInsideAlone) {
    RawSegment raw(name);
    raw.put<long>(16, 40);
    raw.put<long>(24, 1);
    ClockedBroadcast reader;
    ASSERT_TRUE(reader.Open(name, 64));
    EXPECT_EQ(raw.word64(24), 1);
    EXPECT_EQ(read(reader), "");
}

TEST_F(BroadcastTest, AWriterThatIsSetUpAnewGoesOnWithTheReadersItFinds) {
    ClockedBroadcast one;
    ClockedBroadcast two;
    ASSERT_TRUE(one.Open(name, 64));
    ASSERT_TRUE(two.Open(name, 64));
    for (const char* message : {"first", "second"}) {
        ASSERT_TRUE(send(message));
        EXPECT_EQ(read(one), message);
        EXPECT_EQ(read(two), message);
    }
    ClockedBroadcast next;
    ASSERT_TRUE(next.Create(name, 64));
    EXPECT_EQ(RawSegment(name).word64(16), 0);
    EXPECT_EQ(read(one), "");
    EXPECT_EQ(RawSegment(name).word64(16), 2);
    EXPECT_EQ(read(two), "");
    for (const char* message : {"third", "fourth"}) {
        g_testTime += 100;
        ASSERT_TRUE(write(next, message));
        EXPECT_EQ(read(one), message);
        EXPECT_EQ(read(two), message);
    }
}

TEST_F(BroadcastTest, WhatCannotBeWrittenIsRefusedWithALine) {
    LogCapture log;
    ClockedBroadcast reader;
    EXPECT_FALSE(write(reader, "not set up"));
    ASSERT_TRUE(reader.Open(name, 64));
    EXPECT_FALSE(write(reader, "a reader"));
    EXPECT_EQ(read(writer), "");
    EXPECT_EQ(log.count("Illegal operation!"), 3);
    EXPECT_FALSE(writer.WriteData(nullptr, 1));
    EXPECT_TRUE(log.contains("Null data pointer!"));
    EXPECT_FALSE(write(writer, std::string(65, 'x')));
    EXPECT_TRUE(log.contains("Message too long!"));
}

TEST(BroadcastWriterTest, WithoutAnyReaderItFailsAfterThreeSeconds) {
    LogCapture log;
    SharedMemoryBroadcast writer;
    ASSERT_TRUE(writer.Create(uniqueName(), 64));
    const auto start = Clock::now();
    EXPECT_FALSE(write(writer, "nobody listens"));
    EXPECT_GE(since(start), milliseconds(2900));
    EXPECT_TRUE(log.contains("Failed to lock for writing!"));
}

// Listeners that come and go beside one that stays: each leaves after some messages, or is killed.
class Crowd {
public:
    Crowd(std::string name, int kills) : m_name(std::move(name)), m_kills(kills) {}

    // One more comes, the longest there goes.
    void turn() {
        const bool isVictim = m_kills > 0 && m_random() % 4 == 0;
        const std::string count = std::to_string(isVictim ? 1U << 30U : 20 + m_random() % 100);
        m_listeners.push_back(
            {ChildProcess("segmentListener", {m_name, "64", "-1", count}), isVictim});
        EXPECT_EQ(m_listeners.back().child.readLine(), "ready");
        if (isVictim) --m_kills;
        if (m_listeners.size() > 2) leave();
    }
    void leave() {
        auto& [child, isVictim] = m_listeners.front();
        if (isVictim) {
            child.kill();
        } else {
            child.readLine();
            EXPECT_TRUE(child.readLine().starts_with("left after"));
        }
        EXPECT_EQ(child.wait(), isVictim ? 128 + SIGKILL : 0);
        m_listeners.pop_front();
    }
    bool isEmpty() const { return m_listeners.empty(); }

private:
    struct Listener {
        ChildProcess child;
        bool isVictim;
    };
    const std::string m_name;
    int m_kills;
    std::mt19937 m_random{7};
    std::deque<Listener> m_listeners;
};

TEST(BroadcastAcrossProcesses, ReadersThatStaySeeEveryMessageWhileOthersComeAndGo) {
    const auto count = static_cast<std::uint32_t>(rounds(5000));
    const std::string name = uniqueName();
    Checker checker;
    SharedMemoryBroadcast reader;
    SharedMemoryBroadcast writer;
    ASSERT_TRUE(reader.Open(name, 64));
    ASSERT_TRUE(writer.Create(name, 64));
    reader.subscribeObserver(&checker);
    ChildProcess staying("segmentListener",
                         {name, "64", std::to_string(count - 1), std::to_string(count)});
    ASSERT_EQ(staying.readLine(), "ready");

    std::atomic<std::uint32_t> sent = 0;
    std::atomic<bool> stop = false;
    auto sender = std::async([&] {
        while (!stop && write(writer, numberedMessage({1, sent}, sent % 50))) ++sent;
        return stop.load();
    });
    {
        Crowd crowd(name, testsupport::kSanitized ? 1 : 3);
        while (sent < count && !HasFailure()) crowd.turn();
        while (!crowd.isEmpty() && !HasFailure()) crowd.leave();
    }
    stop = true;
    EXPECT_TRUE(sender.get()) << "failed after " << sent;
    EXPECT_TRUE(eventually([&] { return checker.count() == sent; }));
    EXPECT_EQ(checker.wrong(), 0);
    EXPECT_EQ(staying.readLine(), "0");
    EXPECT_EQ(staying.readLine(), "left after " + std::to_string(count - 1));
    EXPECT_EQ(staying.wait(), 0);
}

TEST(BroadcastAcrossProcesses, ReadersGoOnAfterEachWriterThatIsKilled) {
    const std::string name = uniqueName();
    Checker checkers[2];
    SharedMemoryBroadcast readers[2];
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(readers[i].Open(name, 200));
        readers[i].subscribeObserver(&checkers[i]);
    }
    std::mt19937 random(3);
    for (std::uint32_t generation = 1; generation <= static_cast<std::uint32_t>(rounds(50));
         ++generation) {
        ChildProcess writer("segmentSource", {"1", name, "200", std::to_string(generation), "0"});
        ASSERT_EQ(writer.readLine(), "ready");
        for (auto& checker : checkers) {
            ASSERT_TRUE(eventually([&] { return checker.source() == generation; })) << generation;
        }
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 5000));
        writer.kill();
        ASSERT_EQ(writer.wait(), 128 + SIGKILL);
    }
    for (auto& checker : checkers) EXPECT_EQ(checker.wrong(), 0) << checker.firstWrong();
}

}  // namespace
