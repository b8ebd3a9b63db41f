#include "WorkerThread.h"

#include "TestSupport.h"
#include "WorkRecord.h"

using namespace std::chrono_literals;
using namespace testsupport;
using NorvoVirtualChannel::tc::WorkerThread;
using NorvoVirtualChannel::tc::WorkItem;
using NorvoVirtualChannel::tc::WorkSource;

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
    WorkerThread worker([](std::chrono::milliseconds) { ADD_FAILURE(); });
    worker.setPacketsToSendPerBreak(10);
    worker.setBreakTime(3);
    worker.Start();
    for (int i = 0; i < 15; ++i) {
        worker.AddWork(work([] {}), false);
        ASSERT_TRUE(worker.WaitUntilIdle(20s));
    }
}

TEST(WorkerThreadTest, StopRunsWhatIsQueuedEvenWhenTheThreadHasNotBegun) {
    for (int round = 0; round < rounds(500); ++round) {
        Journal journal;
        WorkerThread worker;
        worker.Start();
        worker.addLowPriorityWork(nullptr);  // skipped
        worker.AddWork(note(journal, "queued"), false);
        worker.Stop();
        worker.AddWork(note(journal, "late"), false);
        ASSERT_EQ(journal.entries(), Entries{"queued"});
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

// A sender that finds the queue full shows that it waits when the worker may have parked already.
TEST(WorkerThreadTest, WakesForWhatItsSourceHasWhileItsQueuesAreEmpty) {
    Journal journal;
    class Source : public WorkSource {
    public:
        explicit Source(Journal& journal) : m_journal(journal) {}
        void give() { m_hasMore = true; }
        void refill(WorkerThread& worker) override {
            WorkItem item = note(m_journal, "item");
            if (!m_hasMore.exchange(false)) return;
            EXPECT_TRUE(worker.queue(std::span(&item, 1), false));
        }
        bool hasMore() const override { return m_hasMore; }

    private:
        Journal& m_journal;
        std::atomic<bool> m_hasMore{false};
    } source(journal);
    WorkerThread worker({}, &source);
    worker.Start();
    for (std::size_t i = 1; i <= 200; ++i) {
        EXPECT_TRUE(i % 2 == 0 || worker.WaitUntilIdle(20s));
        source.give();
        worker.signal();
        ASSERT_TRUE(journal.waitFor(i));
    }
}

TEST(WorkerThreadTest, StopCutsAPauseShort) {
    Journal journal;
    WorkerThread worker;
    worker.setPacketsToSendPerBreak(0);
    worker.setBreakTime(600'000);
    worker.Start();
    worker.AddWork(note(journal, "item"), false);
    ASSERT_TRUE(journal.waitFor(1));
    EXPECT_TRUE(worker.StopWithin(30s));
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
