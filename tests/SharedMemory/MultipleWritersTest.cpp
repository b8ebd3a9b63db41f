#include "MultipleWritersOneReaderSM.h"
#include "SegmentSupport.h"

namespace {

using namespace segmenttest;

using ClockedSegment = Clocked<MultipleWritersOneReaderSM>;

class MultipleWritersTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(reader.Open(name, 64) && first.Create(name, 64) && second.Create(name, 64));
    }
    bool isLocked() const { return RawSegment(name).word64(0) == 1; }
    // Whether it is still locked after a read that finds no message.
    bool isLockedAfterARead() {
        EXPECT_EQ(read(reader, 0), "");
        return isLocked();
    }

    const std::string name = uniqueName();
    ClockedSegment reader;
    ClockedSegment first;
    ClockedSegment second;
};

TEST_F(MultipleWritersTest, OneWriterAtATimeHoldsTheLockUntilAnIdleReaderFindsItExpired) {
    const RawSegment raw(name);
    ASSERT_TRUE(first.LockWrite(0));
    EXPECT_EQ(raw.word64(8), g_testTime);
    EXPECT_FALSE(second.LockWrite(0));
    EXPECT_TRUE(isLocked());
    first.UnlockWrite();
    EXPECT_EQ(raw.bytes(0, 16), std::string(16, '\0'));

    g_testTime = 0xfffffff0U;  // so that it wraps
    ASSERT_TRUE(first.LockWrite(0));
    g_testTime += 2000;
    EXPECT_TRUE(isLockedAfterARead());
    g_testTime += 1;
    EXPECT_FALSE(isLockedAfterARead());
    EXPECT_EQ(raw.bytes(0, 16), std::string(16, '\0'));

    // The former owner is still alive, and must not release another writer's lock.
    ASSERT_TRUE(second.LockWrite(0));
    first.UnlockWrite();
    EXPECT_TRUE(isLocked());
    second.UnlockWrite();
    EXPECT_FALSE(isLocked());
}

TEST_F(MultipleWritersTest, ALockCountLeftByDyingWritersIsClearedAfterTwoSeconds) {
    RawSegment raw(name);
    raw.put<long>(0, 3);
    EXPECT_EQ(read(reader, 0), "");
    g_testTime += 2000;
    EXPECT_EQ(read(reader, 0), "");
    EXPECT_FALSE(first.LockWrite(0));
    g_testTime += 1;
    EXPECT_FALSE(isLockedAfterARead());
    EXPECT_TRUE(first.LockWrite(0));
    first.UnlockWrite();
    raw.put<long>(0, -2);
    EXPECT_TRUE(first.LockWrite(0));
    EXPECT_TRUE(isLocked());
}

TEST_F(MultipleWritersTest, ALongMessageStillBeingReceivedKeepsItsLock) {
    const RawSegment raw(name);
    Clocked<SharedMemoryMacosx> slow;
    ASSERT_TRUE(slow.Create(name, 64));
    ASSERT_TRUE(first.LockWrite(0));
    auto written = std::async([&] { return write(slow, numberedMessage(1, 1, 100)); });
    g_testTime += 1990;
    ASSERT_TRUE(eventually([&] { return raw.word64(16) > 0; }));
    EXPECT_EQ(read(reader, 5000).size(), 100U);
    EXPECT_TRUE(written.get());
    g_testTime += 1000;
    EXPECT_TRUE(isLockedAfterARead());
    g_testTime += 1001;
    EXPECT_FALSE(isLockedAfterARead());
}

TEST(MultipleWritersAcrossProcesses, MessagesOfTwoWritersNeverInterleave) {
    const std::string name = uniqueName();
    const std::string count = std::to_string(rounds(3000));
    Checker messages;
    MultipleWritersOneReaderSM reader;
    ASSERT_TRUE(reader.Open(name, 64));
    reader.subscribeObserver(&messages);
    ReadyChild one("segmentSource", {"2", name, "64", "1", count});
    ReadyChild two("segmentSource", {"2", name, "64", "2", count});
    for (auto* source : {&one, &two}) source->writeLine("go");
    for (auto* source : {&one, &two}) EXPECT_EQ(source->wait(), 0);
    EXPECT_TRUE(eventually([&] { return messages.count() == 2U * rounds(3000); }));
}

}  // namespace
