#include <gtest/gtest.h>

#include <deque>
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
    int missed = 0;
    while (!*over && missed == 0) {
        if (--rounds <= 0 || (rounds % 100 == 0 && testsupport::since(start) > 30s)) *over = true;
        table.ball.notify();
        if (!table.waits(table.back, kLong)) ++missed;
    }
    EXPECT_EQ(missed, 0);
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
    if (!table.ready || !table.mutex.lock()) return 1;
    say("waits");
    const bool notified = table.ball.timed_wait(table.mutex, kLong);
    return table.mutex.unlock() && notified ? 0 : 2;
}

TEST_P(NamedConditionAcrossProcesses, AllWaitersInAllProcessesWakeAlsoAfterSomeWereKilled) {
    Table table("crowd_" + backend());
    std::deque<ChildProcess> waiters;
    for (int i = 0; i < 5; ++i) {
        waiters.emplace_back("conditionWaiter", std::vector<std::string>{backend()});
        ASSERT_EQ(waiters.back().readLine(), "waits");
    }
    // Who has said so gives the mutex back only inside its wait.
    ASSERT_TRUE(table.mutex.lock());
    ASSERT_TRUE(table.mutex.unlock());
    for (int i = 0; i < 2; ++i) {
        waiters.front().kill();
        EXPECT_GT(waiters.front().wait(), 128);
        waiters.pop_front();
    }
    table.ball.notify();
    for (auto& waiter : waiters) EXPECT_EQ(waiter.wait(10s), 0);
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
