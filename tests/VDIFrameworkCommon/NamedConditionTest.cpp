#include "NamedCondition.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <deque>
#include <thread>
#include <utility>
#include <vector>

#include "ChildProcess.h"
#include "Eventually.h"
#include "LogCapture.h"
#include "NamedMutex.h"
#include "NamedObject.h"
#include "Rounds.h"
#include "SharedBlock.h"

using namespace std::chrono_literals;
using namespace testsupport;
using namespace VDIFrameworkCommon;
using Clock = std::chrono::steady_clock;

namespace {

// Long enough that a wait that should end early never reaches it; short for one that must.
constexpr unsigned kLong = 20000;
constexpr unsigned kShort = 20;

bool waits(NamedCondition& condition, NamedMutex& mutex, unsigned milliseconds) {
    const bool locked = mutex.lock();
    const bool notified = condition.timed_wait(mutex, milliseconds);
    return mutex.unlock() && locked && notified;
}

class NamedConditionTest : public EachBackend {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_mutex.create("condition mutex"));
        ASSERT_TRUE(m_first.create("condition"));
        ASSERT_TRUE(m_second.create("condition"));
        ASSERT_FALSE(waits(m_first, 0));
        ASSERT_FALSE(waits(m_second, 0));
    }

    bool waits(NamedCondition& condition, unsigned milliseconds) {
        return ::waits(condition, m_mutex, milliseconds);
    }

    NamedMutex m_mutex;
    NamedCondition m_first;
    NamedCondition m_second;
};

double processorMilliseconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto milliseconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_usec) / 1e3;
    };
    return milliseconds(usage.ru_utime) + milliseconds(usage.ru_stime);
}

TEST_P(NamedConditionTest, OnlyAnothersEarlierNotificationSatisfiesAWaitOnce) {
    m_first.notify();
    m_first.notify();
    EXPECT_FALSE(waits(m_first, kShort));
    m_first.notify();
    m_second.notify();
    m_second.notify();
    m_first.notify();
    EXPECT_TRUE(waits(m_first, kLong));
    EXPECT_FALSE(waits(m_first, kShort));
    EXPECT_TRUE(waits(m_second, kLong));
}

TEST_P(NamedConditionTest, EveryWaitingThreadWakesAlsoOfTheNotifyingHandle) {
    std::atomic<int> woken{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&, i] {
            NamedMutex mutex;
            EXPECT_TRUE(mutex.create("condition mutex"));
            EXPECT_TRUE(mutex.lock());
            ++woken;
            EXPECT_TRUE((i % 2 == 0 ? m_first : m_second).timed_wait(mutex, kLong));
            EXPECT_TRUE(mutex.unlock());
            ++woken;
        });
    }
    // A thread that has counted itself gives the mutex back only inside its wait.
    EXPECT_TRUE(eventually([&] {
        EXPECT_TRUE(m_mutex.lock());
        const bool allWait = woken == 4;
        EXPECT_TRUE(m_mutex.unlock());
        return allWait;
    }));
    m_second.notify();
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(woken, 8);
}

TEST_P(NamedConditionTest, ANewHandleCountsOnlyWhatAHandleThatStillExistsNotified) {
    const auto countsAtOnce = [&] {
        NamedCondition fresh;
        EXPECT_TRUE(fresh.create("condition"));
        fresh.notify();
        return waits(fresh, kShort);
    };
    EXPECT_FALSE(countsAtOnce());
    EXPECT_FALSE(countsAtOnce()) << "what the one before notified";
    m_first.notify();
    EXPECT_TRUE(countsAtOnce());
}

TEST_P(NamedConditionTest, AWaitForNobodyLastsItsTimeAndDoesNotBurnTheProcessor) {
    // What has paid until now: many short waits.
    for (int i = 0; i < 50; ++i) {
        std::thread peer([&] { m_second.notify(); });
        EXPECT_TRUE(waits(m_first, kLong));
        peer.join();
    }
    const double before = processorMilliseconds();
    const auto start = Clock::now();
    EXPECT_FALSE(waits(m_first, 300));
    EXPECT_GE(since(start), 300ms);
    EXPECT_LT(processorMilliseconds() - before, 60);
}

TEST_P(NamedConditionTest, AHandleThatWasNeverCreatedFailsAtOnce) {
    NamedCondition condition;
    condition.notify();
    EXPECT_FALSE(waits(condition, kLong));
    EXPECT_FALSE(condition.create(""));
}

TEST(NamedConditionLimit, AMutexThatIsNotFreeAgainIsReported) {
    LogCapture log;
    NamedMutex mutex;
    NamedMutex thief;
    NamedCondition condition;
    ASSERT_TRUE(mutex.create("stolen") && thief.create("stolen") && condition.create("stolen"));
    ASSERT_TRUE(mutex.lock());
    std::thread stealing([&] { EXPECT_TRUE(thief.lockFor(20s)); });
    EXPECT_FALSE(condition.timed_wait(mutex, 300, 20ms));
    stealing.join();
    EXPECT_FALSE(mutex.owns());
    EXPECT_TRUE(log.contains("Mutex not free again"));
    EXPECT_TRUE(thief.unlock());
}

// Overflows show under the sanitizer.
TEST_P(NamedConditionTest, WhatAnotherProcessWroteIntoTheWordsHarmsNobody) {
    const auto object = NamedObject::open(NamedObject::Kind::Condition, "condition");
    for (const std::uint64_t word : {0ULL, 1ULL, 1ULL << 31U, 1ULL << 63U, ~0ULL}) {
        object->words().parkedAt = word;
        object->words().notifier = word;
        object->words().sequence = word;
        waits(m_second, 0);
        std::thread notifying([&] {
            std::this_thread::sleep_for(1ms);
            m_first.notify();
            object->words().notifierCpu = static_cast<std::uint32_t>(word >> 32U | word);
            object->words().wokenAt = static_cast<std::int64_t>(word);
        });
        EXPECT_TRUE(waits(m_second, kLong));
        notifying.join();
        EXPECT_FALSE(waits(m_second, 0));
    }
}

class NamedConditionAcrossProcesses : public EachBackend {};

// A waiter that no wake-up reaches finds out by itself, but only after a quarter of a second.
constexpr auto kAWakeUp = 150ms;

// A mutex and two conditions, as one process sees them. A new handle notices what the living
// processes did at the same table before: each test has its own.
struct Table {
    explicit Table(const std::string& name)
        : ready(mutex.create(name.c_str()) && ball.create((name + "_ball").c_str()) &&
                back.create((name + "_back").c_str())) {}
    NamedMutex mutex;
    NamedCondition ball;
    NamedCondition back;
    const bool ready;
};

// Whether a new handle is satisfied by what was notified before it.
bool newHandleCounts(const char* name) {
    NamedMutex mutex;
    NamedCondition condition;
    EXPECT_TRUE(mutex.create("table") && condition.create(name));
    return waits(condition, mutex, kShort);
}

CHILD_ROLE(conditionReturner) {
    useBackend(args[0]);
    AdaptiveSpin::setEnabled(args[1] == "spin");
    Table table(args[1]);
    SharedBlock<std::atomic<bool>> over("over");
    if (!table.ready) return 1;
    say("ready");
    for (bool last = false; !last;) {
        if (!waits(table.ball, table.mutex, kLong)) return 2;
        last = *over;
        table.back.notify();
    }
    return 0;
}

// Plays `rounds`, or for half a minute on a machine that has no time for it.
void playPingPong(const std::string& backend, const std::string& name, int rounds) {
    AdaptiveSpin::setEnabled(name == "spin");
    Table table(name);
    SharedBlock<std::atomic<bool>> over("over");
    *over = false;
    ChildProcess peer("conditionReturner", {backend, name});
    ASSERT_EQ(peer.readLine(), "ready");
    const auto start = Clock::now();
    auto now = start;
    int played = 0;
    int late = 0;  // a few may be on a busy machine
    bool missed = false;
    while (!*over) {
        ++played;
        if (played >= rounds || missed || late > 5 || now - start > 30s) *over = true;
        table.ball.notify();
        missed = !waits(table.back, table.mutex, kLong);
        const auto before = std::exchange(now, Clock::now());
        if (now - before > kAWakeUp) ++late;
    }
    testing::Test::RecordProperty(name + "Rounds", played);
    EXPECT_FALSE(missed);
    EXPECT_LE(late, 5);
    EXPECT_GT(played, rounds / 20) << "wake-ups are far too slow";
    EXPECT_EQ(peer.wait(), 0);
    AdaptiveSpin::setEnabled(true);
}

TEST_P(NamedConditionAcrossProcesses, PingPongNeverReachesTheLimitOfAWait) {
    const int share = GetParam() == std::string("Polling") ? 10 : 1;
    playPingPong(GetParam(), "spin", testsupport::rounds(900000 / share));
    playPingPong(GetParam(), "park", testsupport::rounds(100000 / share));
}

CHILD_ROLE(conditionWaiter) {
    useBackend(args[0]);
    Table table("crowd_" + args[0]);
    if (!table.ready) return 1;
    for (;;) {
        hear();
        if (!table.mutex.lock()) return 2;
        say("waits");
        const bool notified = table.ball.timed_wait(table.mutex, kLong);
        say(table.mutex.unlock() && notified ? "woken" : "lost");
    }
}

TEST_P(NamedConditionAcrossProcesses, AllWaitersInAllProcessesWakeAlsoAfterSomeWereKilled) {
    Table table(std::string("crowd_") + GetParam());
    std::deque<ChildProcess> waiters;
    const auto letAllWait = [&] {
        for (auto& waiter : waiters) waiter.writeLine("wait");
        for (auto& waiter : waiters) ASSERT_EQ(waiter.readLine(), "waits");
        // Who has said so gives the mutex back only inside its wait.
        ASSERT_TRUE(table.mutex.lock());
        ASSERT_TRUE(table.mutex.unlock());
    };
    for (int i = 0; i < 5; ++i)
        waiters.emplace_back("conditionWaiter", std::vector<std::string>{GetParam()});
    letAllWait();
    for (int i = 0; i < 2; ++i) {
        waiters.front().kill();
        EXPECT_GT(waiters.front().wait(), 128);
        waiters.pop_front();
    }
    auto quickest = Clock::duration::max();
    for (int round = 0; round < 5; ++round) {
        if (round > 0) letAllWait();
        const auto start = Clock::now();
        table.ball.notify();
        for (auto& waiter : waiters) ASSERT_EQ(waiter.readLine(), "woken");
        quickest = std::min(quickest, Clock::now() - start);
    }
    EXPECT_LT(quickest, kAWakeUp);
}

CHILD_ROLE(conditionNotifier) {
    NamedCondition condition;
    if (!condition.create(args[0].c_str())) return 1;
    condition.notify();
    say("notified");
    hear();
    return 0;
}

TEST(NewConditionHandleAcrossProcesses, CountsWhatALivingProcessNotifiedAndNotWhatADeadOneDid) {
    const auto visit = [](const char* name) {
        ChildProcess visitor("conditionNotifier", {name});
        ASSERT_EQ(visitor.readLine(), "notified");
        visitor.closeInput();
        EXPECT_EQ(visitor.wait(), 0);
    };
    // Each of these notifies as it is set up, like a writer that no reader has ever answered.
    for (int i = 0; i < 3; ++i) {
        visit("unanswered");
        EXPECT_FALSE(newHandleCounts("unanswered"));
    }
    ChildProcess partner("conditionNotifier", {"partner"});
    ASSERT_EQ(partner.readLine(), "notified");
    for (int i = 0; i < 3; ++i) visit("partner");
    EXPECT_TRUE(newHandleCounts("partner"));
    partner.kill();
    partner.wait();
    EXPECT_FALSE(newHandleCounts("partner"));
}

INSTANTIATE_EACH_BACKEND(NamedConditionTest);
INSTANTIATE_EACH_BACKEND(NamedConditionAcrossProcesses);

}  // namespace
