#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <future>
#include <random>

#include "ChildProcess.h"
#include "LogCapture.h"
#include "Rounds.h"
#include "SegmentSupport.h"
#include "SharedMemoryBroadcast.h"

namespace {

using namespace segmenttest;
using namespace testsupport;

using ClockedBroadcast = Clocked<SharedMemoryBroadcast>;

// The writer's clock stands still, so that it never goes on for lack of patience.
class BroadcastTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(writer.Create(name, 64));
        ASSERT_TRUE(reader.Open(name, 64));
    }

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
    ClockedBroadcast reader;
};

TEST_F(BroadcastTest, EveryReaderGetsEveryMessageBeforeTheNextIsWritten) {
    ClockedBroadcast others[2];
    for (auto& other : others) ASSERT_TRUE(other.Open(name, 64));
    const RawSegment raw(name);
    EXPECT_EQ(raw.word64(8), 3);
    for (const std::string& message :
         {std::string("one"), std::string(64, 'x'), std::string("3")}) {
        ASSERT_TRUE(send(message));
        EXPECT_EQ(raw.word64(8), 0);
        for (auto* each : {&reader, &others[0], &others[1]}) {
            EXPECT_FALSE(canWriteNow());
            EXPECT_EQ(read(*each), message);
            EXPECT_EQ(read(*each), "");
        }
        EXPECT_EQ(raw.word64(8), 3);
    }
    EXPECT_EQ(raw.bytes(16, 34), std::string("\3\0\0\0\0\0\0\0"
                                             "\0\0\0\0\0\0\0\0"
                                             "\1\0\0\0\1\0\0\0\1\0\0\0\1\0\0\0"
                                             "3x",
                                             34));
    EXPECT_EQ(raw.word64(0), 0);
}

TEST_F(BroadcastTest, AReaderThatOpensIsNotTakenForOneThatHasRead) {
    ClockedBroadcast late;
    ASSERT_TRUE(send("one"));
    ASSERT_TRUE(late.Open(name, 64));
    EXPECT_FALSE(canWriteNow());
    EXPECT_EQ(read(reader), "one");
    EXPECT_EQ(read(late), "");
    ASSERT_TRUE(send("two"));
    EXPECT_EQ(read(late), "two");
    EXPECT_FALSE(canWriteNow());
    EXPECT_EQ(read(reader), "two");
    EXPECT_TRUE(canWriteNow());
}

TEST_F(BroadcastTest, AReaderThatClosesIsNotWaitedFor) {
    for (const bool readsFirst : {true, false}) {
        ClockedBroadcast leaving;
        ASSERT_TRUE(leaving.Open(name, 64));
        ASSERT_TRUE(send("one"));
        EXPECT_EQ(readsFirst ? read(leaving) : "one", "one");
        leaving.Close();
        EXPECT_FALSE(canWriteNow());
        EXPECT_EQ(read(reader), "one");
        ASSERT_TRUE(send("two"));
        EXPECT_EQ(read(reader), "two");
        EXPECT_TRUE(canWriteNow());
    }
}

TEST_F(BroadcastTest, AReaderThatOnlyCountsAtOffset8IsWaitedForAsStated) {
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
    ClockedBroadcast gone;
    ASSERT_TRUE(gone.Open(name, 64));
    ASSERT_TRUE(send("one"));
    EXPECT_EQ(read(reader), "one");
    g_testTime += 2000;
    EXPECT_FALSE(canWriteNow());
    g_testTime += 1;
    ASSERT_TRUE(send("two"));
    EXPECT_EQ(read(reader), "two");
    EXPECT_TRUE(canWriteNow());

    // It was only slow: it comes back with the newest message, and is waited for again.
    EXPECT_EQ(read(gone), "two");
    EXPECT_TRUE(canWriteNow());
    ASSERT_TRUE(send("three"));
    EXPECT_EQ(read(reader), "three");
    EXPECT_FALSE(canWriteNow());
    EXPECT_EQ(read(gone), "three");
    EXPECT_TRUE(canWriteNow());
}

TEST_F(BroadcastTest, ALateWriteDoesNotOvertakeAReaderInsideItsCopy) {
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

    // Nor are several.
    ASSERT_TRUE(send("two"));
    EXPECT_EQ(read(reader), "two");
    for (int i = 0; i < 2; ++i) ASSERT_TRUE(reader.LockRead());
    EXPECT_FALSE(canWriteNow());
    g_testTime += 2001;
    EXPECT_TRUE(canWriteNow());
    EXPECT_EQ(raw.word64(24), 0);
}

TEST_F(BroadcastTest, ACountOfReadyReadersThatIsLostIsRaisedAgain) {
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
    // Opening leaves the count of those inside alone.
    raw.put<long>(16, 40);
    raw.put<long>(24, 1);
    ClockedBroadcast another;
    ASSERT_TRUE(another.Open(name, 64));
    EXPECT_EQ(raw.word64(24), 1);
    EXPECT_EQ(read(another), "");
}

TEST_F(BroadcastTest, AWriterThatIsSetUpAnewGoesOnWithTheReadersItFinds) {
    ClockedBroadcast two;
    ASSERT_TRUE(two.Open(name, 64));
    const auto exchange = [&](ClockedBroadcast& from, const std::string& message) {
        g_testTime += 100;
        ASSERT_TRUE(write(from, message));
        EXPECT_EQ(read(reader), message);
        EXPECT_EQ(read(two), message);
    };
    exchange(writer, "first");
    exchange(writer, "second");
    ClockedBroadcast next;
    ASSERT_TRUE(next.Create(name, 64));
    EXPECT_EQ(RawSegment(name).word64(16), 0);
    EXPECT_EQ(read(reader), "");
    EXPECT_EQ(RawSegment(name).word64(16), 2);
    EXPECT_EQ(read(two), "");
    exchange(next, "third");
    exchange(next, "fourth");
}

TEST_F(BroadcastTest, WhatCannotBeWrittenIsRefusedWithALine) {
    LogCapture log;
    ClockedBroadcast notSetUp;
    EXPECT_FALSE(write(notSetUp, "x"));
    EXPECT_FALSE(write(reader, "a reader"));
    EXPECT_EQ(read(writer), "");
    EXPECT_EQ(log.count("Illegal operation!"), 3);
    EXPECT_FALSE(writer.WriteData(nullptr, 1));
    EXPECT_TRUE(log.contains("Null data pointer!"));
    EXPECT_FALSE(write(writer, std::string(65, 'x')));
    EXPECT_TRUE(log.contains("Message too long!"));
    SharedMemoryBroadcast alone;
    ASSERT_TRUE(alone.Create(uniqueName(), 64));
    const auto start = Clock::now();
    EXPECT_FALSE(write(alone, "nobody listens"));
    EXPECT_GE(since(start), milliseconds(2900));
    EXPECT_TRUE(log.contains("Failed to lock for writing!"));
}

// Listeners come and go until it is over: each leaves after some messages, or is killed.
void comeAndGo(const std::string& name, int kills, const std::function<bool()>& isOver) {
    std::mt19937 random{7};
    std::deque<std::pair<ChildProcess, bool>> listeners;  // and whether it is killed
    const auto leave = [&] {
        auto& [child, isVictim] = listeners.front();
        if (isVictim)
            child.kill();
        else
            EXPECT_TRUE(!child.readLine().empty() && child.readLine().starts_with("left after"));
        EXPECT_EQ(child.wait(), isVictim ? 128 + SIGKILL : 0);
        listeners.pop_front();
    };
    while (!isOver()) {
        const bool isVictim = kills > 0 && random() % 4 == 0;
        const std::string count = std::to_string(isVictim ? 1U << 30U : 20 + random() % 100);
        listeners.emplace_back(ChildProcess("segmentListener", {name, "64", "-1", count}),
                               isVictim);
        EXPECT_EQ(listeners.back().first.readLine(), "ready");
        if (isVictim) --kills;
        if (listeners.size() > 2) leave();
    }
    while (!listeners.empty()) leave();
}

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
    comeAndGo(name, kSanitized ? 1 : 3, [&] { return sent >= count || HasFailure(); });
    stop = true;
    EXPECT_TRUE(sender.get()) << "failed after " << sent;
    EXPECT_TRUE(eventually([&] { return checker.count() == sent; }));
    EXPECT_EQ(checker.wrong(), "");
    EXPECT_EQ(staying.readLine(), "0");
    EXPECT_EQ(staying.readLine(), "left after " + std::to_string(count - 1));
    EXPECT_EQ(staying.wait(), 0);
}

}  // namespace
