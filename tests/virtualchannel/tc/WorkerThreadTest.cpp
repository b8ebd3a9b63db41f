#include "WorkerThread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "LogCapture.h"
#include "Rounds.h"
#include "WorkRecord.h"

using namespace std::chrono_literals;
using namespace testsupport;
using NorvoVirtualChannel::tc::WorkerThread;

namespace {

using Entries = std::vector<std::string>;
using Numbers = std::vector<int>;

// The numbers of the items in a burst after which a worker with these settings pauses.
Numbers pausesOf(int packetsPerBreak, int breakTime, int items) {
    Numbers pauses;
    Journal journal;
    WorkerThread worker([&](std::chrono::milliseconds time) {
        EXPECT_EQ(time.count(), breakTime);
        pauses.push_back(static_cast<int>(journal.entries().size()));
    });
    worker.setPacketsToSendPerBreak(packetsPerBreak);
    worker.setBreakTime(breakTime);
    for (int i = 0; i < items; ++i) worker.addHighPriorityWork(note(journal, "item"));
    worker.Start();
    worker.Stop();
    EXPECT_EQ(journal.entries().size(), static_cast<std::size_t>(items));
    return pauses;
}

}  // namespace

TEST(WorkerThreadTest, PausesAfterTheEleventhItemAndThenAfterEveryTenth) {
    EXPECT_EQ(pausesOf(10, 3, 45), (Numbers{11, 21, 31, 41}));
    EXPECT_EQ(pausesOf(10, 10, 10), Numbers{});
    EXPECT_EQ(pausesOf(1, 3, 4), (Numbers{2, 3, 4}));
    EXPECT_EQ(pausesOf(0, 3, 30), Numbers{1});  // once per burst
    EXPECT_EQ(pausesOf(10, 0, 45), Numbers{});
    EXPECT_EQ(pausesOf(0, 0, 45), Numbers{});
}

TEST(WorkerThreadTest, EveryBurstCountsAnew) {
    Journal journal;
    WorkerThread worker([&](std::chrono::milliseconds) { journal.add("pause"); });
    worker.setPacketsToSendPerBreak(10);
    worker.setBreakTime(3);
    worker.Start();
    for (int i = 0; i < 15; ++i) {
        worker.AddWork(note(journal, "item"), false);
        ASSERT_TRUE(worker.WaitUntilIdle(20s));
    }
    worker.Stop();
    EXPECT_EQ(journal.entries(), Entries(15, "item"));
}

TEST(WorkerThreadTest, TakesEveryFourthItemFromTheLowPriorityQueue) {
    Journal journal;
    WorkerThread worker;
    EXPECT_EQ(worker.popWork(), nullptr);
    for (const char* name : {"l1", "l2", "l3"}) worker.addLowPriorityWork(note(journal, name));
    for (const char* name : {"h1", "h2", "h3", "h4"}) {
        worker.addHighPriorityWork(note(journal, name));
    }
    worker.addHighPriorityWork(nullptr);  // skipped
    EXPECT_EQ(worker.QueueSize(), 8U);
    EXPECT_EQ(worker.highPriorityQueueSize(), 5U);
    EXPECT_EQ(worker.lowPriorityQueueSize(), 3U);
    worker.Start();
    worker.Stop();
    EXPECT_EQ(journal.entries(), (Entries{"h1", "h2", "h3", "l1", "h4", "l2", "l3"}));
}

TEST(WorkerThreadTest, StopRunsWhatIsQueuedEvenWhenTheThreadHasNotBegun) {
    for (int round = 0; round < rounds(500); ++round) {
        Journal journal;
        WorkerThread worker;
        worker.Start();
        worker.AddWork(note(journal, "queued"), false);
        worker.Stop();
        ASSERT_EQ(journal.entries().size(), 1U);
        worker.AddWork(note(journal, "late"), false);
        ASSERT_EQ(journal.entries().size(), 1U);
    }
}

TEST(WorkerThreadTest, ResetWhileRunningLosesNothingElse) {
    std::atomic<int> seen{0};
    auto alive = std::make_shared<int>();
    WorkerThread worker;
    worker.Start();
    const int items = rounds(20000);
    std::thread resetter([&] {
        for (int i = 0; i < items / 10; ++i) worker.ResetQueue();
    });
    for (int i = 0; i < items; ++i) {
        worker.AddWork(work([&seen, alive] { ++seen; }), i % 3 == 0);
    }
    resetter.join();
    worker.AddWork(work([&seen, alive] { seen += items; }), false);
    worker.Stop();
    EXPECT_GE(seen, items);
    EXPECT_EQ(alive.use_count(), 1);
    EXPECT_EQ(worker.QueueSize(), 0U);
}

TEST(WorkerThreadTest, WakesForEverySingleItem) {
    Journal journal;
    WorkerThread worker;
    worker.Start();
    for (int i = 1; i <= rounds(5000); ++i) {
        worker.AddWork(note(journal, "item"), i % 2 == 0);
        ASSERT_TRUE(journal.waitFor(static_cast<std::size_t>(i)));
    }
}

TEST(WorkerThreadTest, StopCutsAPauseShort) {
    Journal journal;
    WorkerThread worker;
    worker.setPacketsToSendPerBreak(0);
    worker.setBreakTime(60000);
    worker.Start();
    worker.AddWork(note(journal, "item"), false);
    ASSERT_TRUE(journal.waitFor(1));
    const auto stopping = std::chrono::steady_clock::now();
    worker.Stop();
    EXPECT_LT(std::chrono::steady_clock::now() - stopping, 30s);
}

TEST(WorkerThreadTest, StopGivesUpOnAnItemThatDoesNotReturnAndOnItsOwnThread) {
    Door busy;
    Journal journal;
    WorkerThread worker;
    worker.Start();
    const auto item = [&] {
        worker.Stop();
        journal.add(worker.StopWithin(20s) ? "joined" : "asked");
        busy.pass();
    };
    worker.AddWork(work(item), false);
    ASSERT_TRUE(journal.waitFor(1));
    EXPECT_EQ(journal.entries(), Entries{"asked"});
    EXPECT_FALSE(worker.StopWithin(10ms));
    busy.open();
    EXPECT_TRUE(worker.StopWithin(20s));
    EXPECT_TRUE(worker.StopWithin(20s));
}

TEST(WorkerThreadTest, TracesTheLifeOfAnItem) {
    LogCapture log;
    Journal journal;
    WorkerThread worker;
    worker.AddWork(note(journal, "item"), true);
    worker.Start();
    worker.Stop();
    for (const char* line :
         {"WorkerThread()", "WorkerThread::AddWork()", "AddWork --- LowPriority, size = 1",
          "Size of work queue after adding an item: 0", "Signal mutex at AddWork()...",
          "Unlock mutex at AddWork()...", "WorkerThread::Start()", "WorkerThread::DoWork()",
          "popWork --- HighPriority, size = 0",
          "popWork --- LowPriority, size = ", "Size of work queue after completing an item: 0",
          "Sending signal to wake the work thread.", "Worker thread stopped."}) {
        EXPECT_TRUE(log.contains(line)) << line;
    }
}
