#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <utility>
#include <vector>

#include "ChildProcess.h"
#include "NamedCondition.h"
#include "NamedMutex.h"
#include "NamedObject.h"
#include "Rounds.h"
#include "SharedBlock.h"

using namespace std::chrono_literals;
using testsupport::ChildProcess;
using testsupport::hear;
using testsupport::say;
using testsupport::SharedBlock;
using VDIFrameworkCommon::AdaptiveSpin;
using VDIFrameworkCommon::NamedCondition;
using VDIFrameworkCommon::NamedMutex;
using VDIFrameworkCommon::WaitBackend;
using Clock = std::chrono::steady_clock;

namespace {

class NamedConditionAcrossProcesses : public testsupport::EachBackend {};

constexpr unsigned kLong = 20000;
constexpr unsigned kShort = 20;
// A waiter that no wake-up reaches finds out by itself, but only after a quarter of a second.
constexpr auto kAWakeUp = 150ms;

// A mutex and two conditions, as one process sees them. A new handle notices what the living
// processes did at the same table before: each test has its own.
struct Table {
    explicit Table(const std::string& name)
        : ready(mutex.create(name.c_str()) && ball.create((name + "_ball").c_str()) &&
                back.create((name + "_back").c_str())) {}
    bool waits(NamedCondition& condition, unsigned milliseconds) {
        const bool locked = mutex.lock();
        const bool notified = condition.timed_wait(mutex, milliseconds);
        return mutex.unlock() && locked && notified;
    }
    NamedMutex mutex;
    NamedCondition ball;
    NamedCondition back;
    const bool ready;
};

// Whether a new handle is satisfied by what was notified before it.
bool newHandleCounts(const char* name) {
    NamedMutex mutex;
    NamedCondition condition;
    EXPECT_TRUE(mutex.create("table") && condition.create(name) && mutex.lock());
    const bool counted = condition.timed_wait(mutex, kShort);
    EXPECT_TRUE(mutex.unlock());
    return counted;
}

}  // namespace

CHILD_ROLE(conditionReturner) {
    testsupport::useBackend(args[0]);
    AdaptiveSpin::setEnabled(args[1] == "spin");
    Table table(args[1]);
    SharedBlock<std::atomic<bool>> over("over");
    if (!table.ready) return 1;
    say("ready");
    for (bool last = false; !last;) {
        if (!table.waits(table.ball, kLong)) return 2;
        last = *over;
        table.back.notify();
    }
    return 0;
}

namespace {

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
        missed = !table.waits(table.back, kLong);
        const auto before = std::exchange(now, Clock::now());
        if (now - before > kAWakeUp) ++late;
    }
    testing::Test::RecordProperty(name + "Rounds", played);
    EXPECT_FALSE(missed);
    EXPECT_LE(late, 5);
    EXPECT_EQ(peer.wait(), 0);
    AdaptiveSpin::setEnabled(true);
}

}  // namespace

TEST_P(NamedConditionAcrossProcesses, PingPongNeverReachesTheLimitOfAWait) {
    const int share = GetParam() == WaitBackend::Polling ? 10 : 1;
    playPingPong(backend(), "spin", testsupport::rounds(900000 / share));
    playPingPong(backend(), "park", testsupport::rounds(100000 / share));
}

CHILD_ROLE(conditionWaiter) {
    testsupport::useBackend(args[0]);
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
    Table table("crowd_" + backend());
    std::deque<ChildProcess> waiters;
    const auto letAllWait = [&] {
        for (auto& waiter : waiters) waiter.writeLine("wait");
        for (auto& waiter : waiters) ASSERT_EQ(waiter.readLine(), "waits");
        // Who has said so gives the mutex back only inside its wait.
        ASSERT_TRUE(table.mutex.lock());
        ASSERT_TRUE(table.mutex.unlock());
    };
    for (int i = 0; i < 5; ++i)
        waiters.emplace_back("conditionWaiter", std::vector<std::string>{backend()});
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
    ChildProcess partner("conditionNotifier", {"partner"});
    ASSERT_EQ(partner.readLine(), "notified");
    EXPECT_TRUE(newHandleCounts("partner"));
    partner.kill();
    partner.wait();
    EXPECT_FALSE(newHandleCounts("partner"));
}

TEST(NewConditionHandleAcrossProcesses, RemembersALivingPartnerOverOthersThatHaveEnded) {
    ChildProcess partner("conditionNotifier", {"partner"});
    ASSERT_EQ(partner.readLine(), "notified");
    for (int i = 0; i < 3; ++i) {
        ChildProcess visitor("conditionNotifier", {"partner"});
        ASSERT_EQ(visitor.readLine(), "notified");
        visitor.closeInput();
        EXPECT_EQ(visitor.wait(), 0);
    }
    EXPECT_TRUE(newHandleCounts("partner"));
}

TEST(NewConditionHandleAcrossProcesses, OneThatCameInVainDoesNotCountItsOwnPredecessors) {
    // Each of these notifies as it is set up, like a writer that no reader has ever answered.
    for (int i = 0; i < 3; ++i) {
        ChildProcess writer("conditionNotifier", {"unanswered"});
        ASSERT_EQ(writer.readLine(), "notified");
        writer.closeInput();
        EXPECT_EQ(writer.wait(), 0);
        EXPECT_FALSE(newHandleCounts("unanswered"));
    }
}

INSTANTIATE_EACH_BACKEND(NamedConditionAcrossProcesses);
