// One end of a segment while the other does what it should not, or is gone.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <csignal>
#include <future>

#include "ChildProcess.h"
#include "LogCapture.h"
#include "MultipleWritersOneReaderSM.h"
#include "PosixSharedMemory.h"
#include "SegmentSupport.h"
#include "SharedMemoryBroadcast.h"

namespace {

using namespace segmenttest;
using testsupport::ChildProcess;
using testsupport::LogCapture;

class SlotTest : public testing::Test {
protected:
    ~SlotTest() override { slot.close(); }
    bool waitForChunk() { return reader.wait(Clock::now() + std::chrono::seconds(5)); }

    const std::string name = uniqueName();
    SlotGate gate;
    SegmentSlot slot{gate};
    SlotReader reader{slot};
};

TEST_F(SlotTest, AChunkThatAWriterSetUpAnewWroteOverIsNotAcknowledged) {
    const auto writer = plain();
    ASSERT_TRUE(slot.open(name, 16, true, reader));
    ASSERT_TRUE(writer->Create(name, 16) && write(*writer, "old"));
    ASSERT_TRUE(waitForChunk());
    // In the middle of the copy. The ID of the new writer's first chunk is the same.
    const auto next = plain();
    ASSERT_TRUE(next->Create(name, 16) && write(*next, "new"));
    EXPECT_FALSE(slot.take());
    EXPECT_EQ(slot.header().readMessageId, 0);
    EXPECT_EQ(reader.takeNow(milliseconds(0)), "new");
    // Nor one of the same writer that nobody has waited for.
    ASSERT_TRUE(write(*next, "seen") && waitForChunk());
    slot.header().newMessageId.fetch_add(1);
    EXPECT_FALSE(slot.take());
}

TEST_F(SlotTest, ABroadcastMessageThatItsWriterTouchesIsNotTaken) {
    SharedMemoryBroadcast listener;
    ASSERT_TRUE(listener.Open(name, 16));
    RawSegment raw(name);
    const auto fields = [&](std::uint32_t length, std::uint32_t total) {
        raw.put<std::uint32_t>(40, total);
        raw.put<std::uint32_t>(44, length);
    };
    // A writer that is not ours holds its lock while it copies, and ours spoils the length.
    LogCapture log;
    fields(3, 3);
    raw.put<long>(0, 1);
    raw.put<long>(16, 1);
    EXPECT_EQ(read(listener), "");
    EXPECT_EQ(log.count("written over while it was read"), 1);
    raw.put<long>(0, 0);
    fields(3, 0xffffffffU);
    raw.put<long>(16, 2);
    EXPECT_EQ(read(listener), "");
    EXPECT_EQ(log.count("Invalid message length!"), 1);
    fields(3, 3);
    raw.put<long>(16, 3);
    EXPECT_EQ(read(listener).size(), 3U);
}

TEST_F(SlotTest, ARefusedBroadcastWriteLeavesTheMessageBefore) {
    SharedMemoryBroadcast writer;
    SharedMemoryBroadcast listener;
    ASSERT_TRUE(listener.Open(name, 16) && writer.Create(name, 16));
    ASSERT_TRUE(write(writer, "AAAAAAAAAA"));
    EXPECT_EQ(read(listener), "AAAAAAAAAA");
    const RawSegment raw(name);
    VDIFrameworkCommon::NamedMutex mutex;
    ASSERT_TRUE(mutex.create(("ED992248_" + name).c_str()) && mutex.lock());
    EXPECT_FALSE(write(writer, "BBBB"));
    mutex.unlock();
    EXPECT_EQ(raw.bytes(48, 10), "AAAAAAAAAA");
    EXPECT_TRUE(write(writer, "BBBB"));
    EXPECT_EQ(read(listener), "BBBB");
}

TEST_F(SlotTest, AReaderThatOpensWhileAWriterStartsAnewDoesNotTakeAnOldMessageForANewOne) {
    SharedMemoryBroadcast writer;
    SharedMemoryBroadcast listener;
    ASSERT_TRUE(listener.Open(name, 16) && writer.Create(name, 16));
    ASSERT_TRUE(write(writer, "old"));
    EXPECT_EQ(read(listener), "old");
    SharedMemoryBroadcast next;
    SharedMemoryBroadcast late;
    ASSERT_TRUE(next.Create(name, 16));
    ASSERT_TRUE(late.Open(name, 16));
    EXPECT_EQ(read(listener), "");
    EXPECT_EQ(read(late), "");
    // Written before any reader has put its ID back, it is new for all of them.
    SharedMemoryBroadcast third;
    ASSERT_TRUE(third.Create(name, 16));
    ASSERT_TRUE(write(third, "new"));
    EXPECT_EQ(read(listener), "new");
    EXPECT_EQ(read(late), "new");
}

TEST_F(SlotTest, AnObjectThatIsRemovedOrCutUnderneathIsMadeAnewByBothEnds) {
    const std::string object = std::to_string(geteuid()) + "DEFVDI_" + name;
    const std::string path = "/dev/shm" + VDIFrameworkCommon::sharedMemoryObjectName(object);
    Collector collector;
    const auto in = plain();
    const auto out = plain();
    ASSERT_TRUE(in->Open(name, 8192) && out->Create(name, 8192));
    in->subscribeObserver(&collector);
    LogCapture log;
    std::size_t count = 0;
    for (const bool isCut : {false, true}) {
        ASSERT_TRUE(write(*out, "before") && collector.waitForCount(++count));
        const RawSegment raw(name);
        if (isCut) {
            ASSERT_EQ(truncate(path.c_str(), 0), 0);
        } else {
            ASSERT_EQ(unlink(path.c_str()), 0);
        }
        ASSERT_TRUE(eventually([&] { return write(*out, std::string(8192, 'a')); }));
        ASSERT_TRUE(collector.waitForCount(++count)) << isCut;
        EXPECT_EQ(collector.last().size(), 8192U);
    }
    EXPECT_GE(log.count("was removed from the system, made anew: " + name), 1);
    EXPECT_GE(log.count("was cut by another process, made anew: " + name), 1);
    in->Close();
}

TEST(SlotAcrossProcesses, AnEndWhoseProcessIsKilledHoldsNobodyUp) {
    const std::string name = uniqueName();
    const auto soon = milliseconds(1000);
    // A broadcast's reader, with a message that it has not taken.
    SharedMemoryBroadcast writer;
    ASSERT_TRUE(writer.Create(name, 64));
    ChildProcess listener("segmentListener", {name, "64", "-1", "1"});
    ASSERT_EQ(listener.readLine(), "ready");
    SharedMemoryBroadcast reader;
    ASSERT_TRUE(reader.Open(name, 64));
    ASSERT_EQ(kill(listener.pid(), SIGSTOP), 0);
    ASSERT_TRUE(write(writer, "not taken"));
    EXPECT_EQ(read(reader), "not taken");
    listener.kill();
    listener.wait();
    auto start = Clock::now();
    for (const std::string message : {"one", "two"}) {
        ASSERT_TRUE(write(writer, message));
        EXPECT_EQ(read(reader), message);
    }
    EXPECT_LT(since(start), soon);
    // One of several writers, with the lock.
    const std::string shared = uniqueName();
    MultipleWritersOneReaderSM other;
    ASSERT_TRUE(other.Create(shared, 64));
    ChildProcess holder("segmentLockHolder", {shared, "64"});
    ASSERT_EQ(holder.readLine(), "locked");
    holder.kill();
    holder.wait();
    start = Clock::now();
    EXPECT_TRUE(other.LockWrite(2000));
    EXPECT_LT(since(start), soon);
}

TEST_F(SlotTest, AMutexThatAnotherProcessKeepsBoundsAReadByItsTimeOut) {
    ASSERT_TRUE(slot.open(name, 16, true, reader));
    VDIFrameworkCommon::NamedMutex mutex;
    ASSERT_TRUE(mutex.create(("ED992248_" + name).c_str()) && mutex.lock());
    const auto start = Clock::now();
    EXPECT_FALSE(reader.wait(start + milliseconds(50)));
    EXPECT_LT(since(start), milliseconds(1000));
    mutex.unlock();
}

}  // namespace
