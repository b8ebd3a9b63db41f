// One end of a segment when the other misbehaves or is gone.
#include <latch>

#include "AllocationFailure.h"
#include "MultipleWritersOneReaderSM.h"
#include "SegmentSupport.h"
#include "SharedMemoryBroadcast.h"

namespace {

using namespace segmenttest;

class SlotTest : public testing::Test {
protected:
    ~SlotTest() override { slot.close(); }
    bool waitForChunk() { return reader.wait(Clock::now() + std::chrono::seconds(5)); }

    const std::string name = uniqueName();
    SlotGate gate;
    SegmentSlot slot{gate};
    SlotReader reader{slot};
};

TEST_F(SlotTest, AChunkOverwrittenByANewWriterIsNotAcknowledged) {
    const auto writer = plain();
    ASSERT_TRUE(slot.open(name, 16, true, reader));
    ASSERT_TRUE(writer->Create(name, 16) && write(*writer, "old"));
    ASSERT_TRUE(waitForChunk());
    // A new writer during the copy. Its first chunk has the same ID.
    const auto next = plain();
    ASSERT_TRUE(next->Create(name, 16) && write(*next, "new"));
    EXPECT_FALSE(slot.take());
    EXPECT_EQ(slot.header().readMessageId, 0);
    EXPECT_EQ(reader.takeNow(milliseconds(0)), "new");
    // Nor is a chunk acknowledged whose ID has changed since the reader waited for it.
    ASSERT_TRUE(write(*next, "seen") && waitForChunk());
    slot.header().newMessageId.fetch_add(1);
    EXPECT_FALSE(slot.take());
}

TEST_F(SlotTest, OneOfSeveralThatOpenAtOnceGetsAnExclusiveEnd) {
    std::atomic<int> got = 0;
    std::latch all(8);
    onThreads(8, [&](int) {
        SlotGate ownGate;
        SegmentSlot own{ownGate};
        SlotWriter writer{own};
        if (own.open(name, 16, true, writer, SegmentSlot::Claim::Exclusive)) ++got;
        all.arrive_and_wait();
        EXPECT_TRUE(own.isMapped() || own.error().failure == OpenFailure::InUse);
        own.close();
    });
    EXPECT_EQ(got, 1);
    EXPECT_TRUE(slot.open(name, 16, true, reader, SegmentSlot::Claim::Exclusive));
}

TEST_F(SlotTest, AMessageThatThereIsNoMemoryForWaitsUntilThereIs) {
    const auto writer = plain();
    ASSERT_TRUE(slot.open(name, 64, true, reader) && writer->Create(name, 64));
    const std::string text(64, 'm');
    ASSERT_TRUE(write(*writer, text) && waitForChunk());
    LogCapture log;
    // The first allocation of a read is for the message itself.
    bool isFirst = true;
    failEachAllocation([&] {
        if (!std::exchange(isFirst, false)) return;
        EXPECT_EQ(reader.takeNow(milliseconds(0)), "");
    });
    EXPECT_EQ(reader.takeNow(milliseconds(0)), text);
    EXPECT_EQ(log.count("No memory for a message of 64 bytes, stream: " + name), 1);
}

TEST_F(SlotTest, WhereverMemoryRunsOutInOpeningTheSegmentMayBeOpenedLater) {
    for (const auto make : {plain, broadcast}) {
        const std::string own = uniqueName();
        const auto in = make();
        const auto out = make();
        for (const auto& end : {in, out}) {
            failEachAllocation([&] {
                const bool isOpen = end == in ? in->Open(own, 64) : out->Create(own, 64);
                const OpenFailure failure = end->openError().failure;
                EXPECT_EQ(failure, isOpen ? OpenFailure::None : OpenFailure::NoSpace);
                if (isOpen) end->Close();
            });
        }
        ASSERT_TRUE(in->Open(own, 64) && out->Create(own, 64));
        EXPECT_TRUE(crosses(*out, *in, "message"));
    }
}

TEST_F(SlotTest, ABroadcastMessageIsNotTakenWhileItsWriterChangesIt) {
    SharedMemoryBroadcast listener;
    ASSERT_TRUE(listener.Open(name, 16));
    RawSegment raw(name);
    const auto fields = [&](std::uint32_t length, std::uint32_t total) {
        raw.put<std::uint32_t>(40, total);
        raw.put<std::uint32_t>(44, length);
    };
    // Other implementations' writers hold their lock while they copy; ours makes the length
    // invalid.
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
    BroadcastReader own{slot};
    ASSERT_TRUE(slot.open(name, 16, true, own) && truncate(pathOf(name).c_str(), 0) == 0);
    std::this_thread::sleep_for(milliseconds(1));
    EXPECT_EQ(own.take(), "");
    EXPECT_EQ(log.count("Failed to lock for reading!" + name), 1);
    slot.close();
}

TEST_F(SlotTest, ARefusedBroadcastWriteLeavesThePreviousMessage) {
    SharedMemoryBroadcast writer;
    SharedMemoryBroadcast listener;
    ASSERT_TRUE(listener.Open(name, 16) && writer.Create(name, 16));
    ASSERT_TRUE(crosses(writer, listener, "AAAAAAAAAA"));
    VDIFrameworkCommon::NamedMutex mutex;
    ASSERT_TRUE(mutex.create(("ED992248_" + name).c_str()) && mutex.lock());
    EXPECT_FALSE(write(writer, "BBBB"));
    mutex.unlock();
    EXPECT_EQ(RawSegment(name).bytes(48, 10), "AAAAAAAAAA");
    EXPECT_TRUE(crosses(writer, listener, "BBBB"));
}

TEST_F(SlotTest, AReaderThatOpensWhileTheWriterRestartsDoesNotTakeAnOldMessage) {
    SharedMemoryBroadcast writers[3];
    SharedMemoryBroadcast listener;
    SharedMemoryBroadcast late;
    ASSERT_TRUE(listener.Open(name, 16) && writers[0].Create(name, 16));
    ASSERT_TRUE(crosses(writers[0], listener, "old"));
    ASSERT_TRUE(writers[1].Create(name, 16) && late.Open(name, 16));
    const RawSegment raw(name);
    EXPECT_EQ(raw.word64(16), 0);
    EXPECT_EQ(read(listener), "");
    EXPECT_EQ(raw.word64(16), 1) << "the reader restores the ID";
    EXPECT_EQ(read(late), "");
    EXPECT_TRUE(crosses(writers[1], listener, "next") && read(late) == "next");
    // A message written before any reader has restored the ID is new to all readers.
    ASSERT_TRUE(writers[2].Create(name, 16));
    EXPECT_TRUE(crosses(writers[2], listener, "new"));
    EXPECT_EQ(read(late), "new");
}

TEST_F(SlotTest, ARemovedOrTruncatedObjectIsMadeAnewByBothEnds) {
    const std::string path = pathOf(name);
    Collector collector;
    const auto in = plain();
    const auto out = plain();
    ASSERT_TRUE(in->Open(name, 8192) && out->Create(name, 8192));
    in->subscribeObserver(&collector);
    LogCapture log;
    std::size_t count = 0;
    for (const bool isTruncated : {false, true}) {
        ASSERT_TRUE(write(*out, "before") && collector.waitForCount(++count));
        const RawSegment raw(name);
        // What is truncated within 50 us of an end's last look can end the process: a reader looks
        // no more than that often while it spins.
        std::this_thread::sleep_for(milliseconds(20));
        ASSERT_EQ(isTruncated ? truncate(path.c_str(), 0) : unlink(path.c_str()), 0);
        ASSERT_TRUE(eventually([&] { return write(*out, std::string(8192, 'a')); }));
        ASSERT_TRUE(collector.waitForCount(++count)) << isTruncated;
        EXPECT_EQ(collector.last().size(), 8192U);
    }
    EXPECT_GE(log.count("was removed from the system, made anew: " + name), 1);
    EXPECT_GE(log.count("was cut by another process, made anew: " + name), 1);
    // A newcomer opens others beside a segment that stays.
    for (const std::string& beside : pathsBeside(name)) ASSERT_EQ(unlink(beside.c_str()), 0);
    const auto next = plain();
    ASSERT_TRUE(out->Close() && next->Create(name, 8192));
    ASSERT_TRUE(write(*next, "slow") && collector.waitForCount(++count));
    const auto start = Clock::now();
    for (int i = 0; i < 3; ++i) ASSERT_TRUE(write(*next, "fast"));
    ASSERT_TRUE(collector.waitForCount(count + 3));
    EXPECT_LT(since(start), milliseconds(1000));
    in->Close();
}

TEST(SlotAcrossProcesses, IdleReadersAndAClosingWriterSurviveThatTheirObjectIsCut) {
    const std::string names[] = {uniqueName(), uniqueName()};
    const auto out = plain();
    SharedMemoryBroadcast broadcast;
    ASSERT_TRUE(out->Create(names[0], 64) && broadcast.Create(names[1], 64));
    ReadyChild sink("segmentSink", {names[0], "64"});
    ReadyChild listener("segmentListener", {names[1], "64", "1"});
    for (const std::string& name : names) {
        Texts paths = pathsBeside(name);
        paths.push_back(pathOf(name));
        for (const std::string& path : paths) {
            std::this_thread::sleep_for(milliseconds(20));
            ASSERT_EQ(truncate(path.c_str(), 0), 0);
            std::error_code missing;
            ASSERT_TRUE(eventually([&] {
                const auto size = fs::file_size(path, missing);
                return !missing && size > 0;
            })) << "not made anew: "
                << path;
        }
    }
    const std::string message = numberedMessage(1, 7, 64);
    EXPECT_TRUE(write(*out, message) && write(broadcast, message));
    EXPECT_EQ(sink.readLine(), "good");
    EXPECT_EQ(listener.readLine(), "7");
    Texts cut = pathsBeside(names[0]);
    for (const std::string& path : cut) {
        std::this_thread::sleep_for(milliseconds(20));
        ASSERT_EQ(truncate(path.c_str(), 4), 0);
        for (int i = 0; i < 2; ++i) EXPECT_TRUE(write(*out, message)) << path;
    }
    sink.killAndWait();
    cut.push_back(pathOf(names[0]));
    std::this_thread::sleep_for(milliseconds(20));
    for (const std::string& path : cut) ASSERT_EQ(truncate(path.c_str(), 0), 0);
    EXPECT_TRUE(out->Close());
}

TEST(SlotAcrossProcesses, AKilledProcessHoldsNobodyUp) {
    const std::string name = uniqueName();
    const auto soon = milliseconds(1000);
    // A broadcast reader that has not taken the last message.
    SharedMemoryBroadcast writer;
    ASSERT_TRUE(writer.Create(name, 64));
    ReadyChild listener("segmentListener", {name, "64", "2"});
    SharedMemoryBroadcast reader;
    ASSERT_TRUE(reader.Open(name, 64));
    ASSERT_EQ(kill(listener.pid(), SIGSTOP), 0);
    ASSERT_TRUE(crosses(writer, reader, "not taken"));
    listener.killAndWait();
    auto start = Clock::now();
    for (const std::string message : {"one", "two"}) EXPECT_TRUE(crosses(writer, reader, message));
    EXPECT_LT(since(start), soon);
    // One of several writers, holding the lock.
    const std::string shared = uniqueName();
    MultipleWritersOneReaderSM other;
    ASSERT_TRUE(other.Create(shared, 64));
    ReadyChild holder("segmentLockHolder", {shared, "64"});
    holder.killAndWait();
    start = Clock::now();
    EXPECT_TRUE(other.LockWrite(2000));
    EXPECT_LT(since(start), soon);
}

TEST_F(SlotTest, AWriteAtOnceNeedsAReaderThatHasTakenAllAndWaitsForNothing) {
    const auto writer = plain();
    const auto tryWrite = [&](const std::string& text) {
        return writer->TryWriteData(text.data(), static_cast<unsigned int>(text.size()));
    };
    ASSERT_TRUE(writer->Create(name, 16));
    EXPECT_FALSE(tryWrite("no reader"));
    ASSERT_TRUE(slot.open(name, 16, true, reader));
    EXPECT_FALSE(tryWrite("more than one chunk"));
    for (const char* text : {"longest message.", "short"}) {
        EXPECT_TRUE(tryWrite(text));
        EXPECT_FALSE(tryWrite("not taken yet"));
        EXPECT_EQ(reader.takeNow(milliseconds(0)), text);
    }
    EXPECT_EQ(slot.data()[5], '\0');
    VDIFrameworkCommon::NamedMutex mutex;
    ASSERT_TRUE(mutex.create(("ED992248_" + name).c_str()) && mutex.lock());
    const auto start = Clock::now();
    EXPECT_FALSE(tryWrite("mutex held"));
    EXPECT_FALSE(reader.wait(start + milliseconds(50))) << "nor does a read exceed its time-out";
    EXPECT_LT(since(start), milliseconds(1000));
    mutex.unlock();
    EXPECT_TRUE(tryWrite("free again"));
}

}  // namespace
