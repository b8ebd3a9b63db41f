#include "SegmentSupport.h"
#include "SharedMemoryBroadcast.h"

namespace {

using namespace segmenttest;

using ClockedBroadcast = Clocked<SharedMemoryBroadcast>;

// The writer's clock is stopped, so it times out only when a test advances it.
class BroadcastTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(writer.Create(name, 64));
        ASSERT_TRUE(reader.Open(name, 64));
    }

    // Whether the writer could write now.
    bool canWriteNow() {
        if (!writer.LockWrite()) return false;
        writer.UnlockWrite();
        return true;
    }
    bool send(const std::string& message) {
        g_testTime += 100;
        return canWriteNow() && write(writer, message);
    }
    bool takes(ClockedBroadcast& one, const std::string& message) { return read(one) == message; }
    // Whether the message reaches `reader`.
    bool crosses(const std::string& message) { return send(message) && takes(reader, message); }

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
    ClockedBroadcast idle;
    ASSERT_TRUE(idle.Create(name, 64) && send("four"));
    for (auto* each : {&reader, &others[0], &others[1]}) EXPECT_EQ(read(*each), "four");
}

TEST_F(BroadcastTest, ANewReaderDoesNotCountAsHavingReadAndAClosedOneIsNotWaitedFor) {
    ClockedBroadcast late;
    ASSERT_TRUE(send("one") && late.Open(name, 64));
    EXPECT_FALSE(canWriteNow());
    EXPECT_TRUE(takes(reader, "one") && takes(late, ""));
    ASSERT_TRUE(send("two") && takes(late, "two"));
    EXPECT_FALSE(canWriteNow());
    EXPECT_TRUE(takes(reader, "two"));

    for (const bool readsFirst : {true, false}) {
        ASSERT_TRUE(readsFirst || late.Open(name, 64));
        ASSERT_TRUE(send("three") && (!readsFirst || takes(late, "three")));
        late.Close();
        EXPECT_FALSE(canWriteNow());
        EXPECT_TRUE(takes(reader, "three"));
        EXPECT_TRUE(crosses("four"));
        EXPECT_TRUE(canWriteNow());
    }
}

TEST_F(BroadcastTest, AReaderKnownOnlyByTheCountAtOffset8IsWaitedForTwoSeconds) {
    RawSegment raw(name);
    ASSERT_TRUE(crosses("one"));
    raw.put<long>(8, raw.word64(8) + 1);
    EXPECT_FALSE(canWriteNow());
    g_testTime += 2001;
    ASSERT_TRUE(crosses("two"));
    EXPECT_FALSE(canWriteNow());
    raw.put<long>(8, raw.word64(8) + 1);
    EXPECT_TRUE(canWriteNow());
}

TEST_F(BroadcastTest, AMissingReaderDelaysOneMessageOnly) {
    ClockedBroadcast gone;
    ASSERT_TRUE(gone.Open(name, 64) && crosses("one"));
    g_testTime += 2000;
    EXPECT_FALSE(canWriteNow());
    g_testTime += 1;
    ASSERT_TRUE(crosses("two"));
    EXPECT_TRUE(canWriteNow());

    // If it was only slow, it continues with the newest message, and the writer waits for it again.
    EXPECT_TRUE(takes(gone, "two"));
    EXPECT_TRUE(canWriteNow());
    ASSERT_TRUE(crosses("three"));
    EXPECT_FALSE(canWriteNow());
    EXPECT_TRUE(takes(gone, "three"));
    EXPECT_TRUE(canWriteNow());
}

TEST_F(BroadcastTest, ALateWriteDoesNotOvertakeAReaderInsideItsCopy) {
    const RawSegment raw(name);
    ASSERT_TRUE(send("one") && reader.LockRead());
    g_testTime += 2001;
    EXPECT_FALSE(canWriteNow());
    g_testTime += 499;
    EXPECT_FALSE(canWriteNow());
    reader.UnlockRead();
    EXPECT_TRUE(canWriteNow());

    // The writer stops waiting for a reader that died inside, and its count is removed.
    ASSERT_TRUE(reader.LockRead());
    EXPECT_FALSE(canWriteNow());
    g_testTime += 500;
    EXPECT_TRUE(canWriteNow());
    EXPECT_EQ(raw.word64(24), 0);
    reader.UnlockRead();
    EXPECT_EQ(raw.word64(24), 0);

    // The same with several.
    ASSERT_TRUE(crosses("two"));
    ASSERT_TRUE(reader.LockRead() && reader.LockRead());
    EXPECT_FALSE(canWriteNow());
    g_testTime += 2001;
    EXPECT_TRUE(canWriteNow());
    EXPECT_EQ(raw.word64(24), 0);
}

TEST_F(BroadcastTest, ALostCountOfReadyReadersIsRestored) {
    RawSegment raw(name);
    raw.put<long>(8, 1L << 32);  // the upper half does not count
    EXPECT_FALSE(canWriteNow());
    EXPECT_TRUE(takes(reader, "") && takes(reader, ""));
    EXPECT_TRUE(crosses("one"));
    // But not when it was 0 only briefly.
    for (const long count : {0L, 1L, 0L}) {
        raw.put<long>(8, count);
        EXPECT_TRUE(takes(reader, ""));
        EXPECT_EQ(raw.word64(8), count);
    }
    // Opening does not change the count of readers inside.
    raw.put<long>(16, 40);
    raw.put<long>(24, 1);
    ClockedBroadcast another;
    ASSERT_TRUE(another.Open(name, 64));
    EXPECT_EQ(raw.word64(24), 1);
    EXPECT_TRUE(takes(another, ""));
}

TEST_F(BroadcastTest, AnInvalidWriteIsRefusedAndLogged) {
    LogCapture log;
    ClockedBroadcast notSetUp;
    EXPECT_FALSE(write(notSetUp, "x") || write(reader, "a reader"));
    EXPECT_TRUE(takes(writer, ""));
    EXPECT_EQ(log.count("Illegal operation!"), 3) << "one for each object";
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

TEST(BroadcastAcrossProcesses, ReadersThatStaySeeEveryMessageWhileOthersComeAndGo) {
    const auto count = static_cast<std::uint32_t>(rounds(5000));
    const std::string name = uniqueName();
    Checker checker;
    SharedMemoryBroadcast reader;
    SharedMemoryBroadcast writer;
    ASSERT_TRUE(reader.Open(name, 64) && writer.Create(name, 64));
    reader.subscribeObserver(&checker);
    std::atomic<std::uint32_t> sent = 0;
    std::atomic<bool> stop = false;
    auto sender = std::async([&] {
        while (!stop && write(writer, numberedMessage(1, sent, sent % 50))) ++sent;
        return stop.load();
    });
    std::deque<ReadyChild> visitors;
    const auto seeOff = [&] {
        const int status = visitors.front().wait();
        EXPECT_TRUE(status == 0 || status == 128 + SIGKILL) << status;
        visitors.pop_front();
    };
    int kills = kSanitized ? 1 : 3;
    for (unsigned i = 0; sent < count && !HasFailure(); ++i) {
        const std::string stay = std::to_string(20 + i * 37 % 100);
        visitors.emplace_back("segmentListener", Texts{name, "64", stay});
        if (i % 4 == 1 && kills-- > 0) visitors.back().kill();
        if (visitors.size() > 2) seeOff();
    }
    while (!visitors.empty()) seeOff();
    stop = true;
    EXPECT_TRUE(sender.get()) << "failed after " << sent;
    EXPECT_TRUE(eventually([&] { return checker.count() == sent; }));
}

}  // namespace
