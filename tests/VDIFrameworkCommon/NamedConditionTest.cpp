#include "NamedCondition.h"

#include "FrameworkSupport.h"
#include "NamedMutex.h"
#include "NamedObject.h"

using namespace frameworktest;

namespace {

// For waits that should be satisfied, and for waits that should time out.
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
        ASSERT_TRUE(m_first.create("condition") && m_second.create("condition"));
        ASSERT_FALSE(waits(m_first, 0) || waits(m_second, 0));
    }

    bool waits(NamedCondition& condition, unsigned milliseconds) {
        return ::waits(condition, m_mutex, milliseconds);
    }

    NamedMutex m_mutex;
    NamedCondition m_first;
    NamedCondition m_second;
};

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

TEST_P(NamedConditionTest, EveryWaitingThreadWakesIncludingThoseOnTheNotifyingHandle) {
    std::atomic<int> waiting{0};
    onThreads(5, [&](int number) {
        NamedMutex mutex;
        EXPECT_TRUE(mutex.create("condition mutex"));
        if (number == 4) {
            // A thread that has been counted releases the mutex only inside its wait.
            EXPECT_TRUE(eventually([&] { return waiting == 4 && mutex.lock() && mutex.unlock(); }));
            return m_second.notify();
        }
        auto& condition = number % 2 == 0 ? m_first : m_second;
        EXPECT_TRUE(mutex.lock() && ++waiting > 0 && condition.timed_wait(mutex, kLong) &&
                    mutex.unlock());
    });
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
    // Many short waits make the handle spin.
    for (int i = 0; i < 50; ++i) {
        std::thread peer([&] { m_second.notify(); });
        EXPECT_TRUE(waits(m_first, kLong));
        peer.join();
    }
    const std::clock_t before = std::clock();
    const auto start = Clock::now();
    EXPECT_FALSE(waits(m_first, 300));
    EXPECT_GE(since(start), 300ms);
    EXPECT_LT(std::clock() - before, 60 * CLOCKS_PER_SEC / 1000);
}

TEST_P(NamedConditionTest, AMutexThatCannotBeLockedAgainIsReported) {
    LogCapture log;
    NamedMutex thief;
    ASSERT_TRUE(thief.create("condition mutex") && m_mutex.lock());
    std::thread stealing([&] { EXPECT_TRUE(thief.lockFor(20s)); });
    EXPECT_FALSE(m_first.timed_wait(m_mutex, 300, 20ms));
    stealing.join();
    EXPECT_FALSE(m_mutex.owns());
    EXPECT_TRUE(log.contains("Mutex not free again"));
    EXPECT_TRUE(thief.unlock());
}

// Sanitizers find overflows.
TEST_P(NamedConditionTest, GarbageInTheSharedWordsIsHarmless) {
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

class NamedConditionAcrossProcesses : public EachBackend {
protected:
    ~NamedConditionAcrossProcesses() override { AdaptiveSpin::setEnabled(true); }
};

// A waiter that misses a wake-up recovers by itself, but only after a second.
constexpr auto kAWakeUp = 150ms;

// A mutex and two conditions as one process sees them. A new handle counts earlier notifications of
// live processes under the same names, so each test uses its own names.
struct Table {
    explicit Table(const std::string& name) {
        EXPECT_TRUE(mutex.create(name.c_str()) && ball.create((name + "_ball").c_str()) &&
                    back.create((name + "_back").c_str()));
    }
    NamedMutex mutex;
    NamedCondition ball;
    NamedCondition back;
};

CHILD_ROLE(conditionReturner) {
    useBackend(args[0]);
    AdaptiveSpin::setEnabled(args[1] == "spin");
    Table table(args[1]);
    say("ready");
    while (waits(table.ball, table.mutex, kLong)) table.back.notify();
    return 1;
}

// Plays `rounds` rounds, for at most 15 s.
void playPingPong(const std::string& backend, const std::string& name, int rounds) {
    AdaptiveSpin::setEnabled(name == "spin");
    Table table(name);
    const ReadyChild peer("conditionReturner", {backend, name});
    const auto start = Clock::now();
    auto now = start;
    int played = 0;
    for (int late = 0; played < rounds && now - start < 15s; ++played) {
        table.ball.notify();
        ASSERT_TRUE(waits(table.back, table.mutex, kLong)) << "after " << played;
        const auto before = std::exchange(now, Clock::now());
        if (now - before > kAWakeUp) ++late;
        ASSERT_LE(late, 5) << "a few may be, on a busy machine; after " << played;
    }
    testing::Test::RecordProperty(name + "Rounds", played);
    EXPECT_GT(played, rounds / 20) << "wake-ups are far too slow";
}

TEST_P(NamedConditionAcrossProcesses, PingPongNeverReachesTheLimitOfAWait) {
    const int share = GetParam() == std::string("Polling") ? 10 : 1;
    playPingPong(GetParam(), "spin", rounds(900000 / share));
    playPingPong(GetParam(), "park", rounds(100000 / share));
}

CHILD_ROLE(conditionWaiter) {
    useBackend(args[0]);
    Table table("crowd_" + args[0]);
    for (;;) {
        hear();
        if (!table.mutex.lock()) return 2;
        say("waits");
        const bool notified = table.ball.timed_wait(table.mutex, kLong);
        say(table.mutex.unlock() && notified ? "woken" : "lost");
    }
}

TEST_P(NamedConditionAcrossProcesses, AllWaitersInAllProcessesWakeAlsoAfterSomeWereKilled) {
    const std::string backend = GetParam();
    Table table("crowd_" + backend);
    std::deque<ChildProcess> waiters;
    for (int i = 0; i < 5; ++i) waiters.emplace_back("conditionWaiter", std::vector{backend});
    auto quickest = Clock::duration::max();
    for (int round = 0; round < 5; ++round) {
        for (auto& waiter : waiters) waiter.writeLine("wait");
        for (auto& waiter : waiters) ASSERT_EQ(waiter.readLine(), "waits");
        // A waiter that has reported releases the mutex only inside its wait.
        ASSERT_TRUE(table.mutex.lock() && table.mutex.unlock());
        for (int killed = 0; round == 0 && killed < 2; ++killed) waiters.pop_front();
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
    say("ready");
    hear();
    return 0;
}

TEST(NewConditionHandleAcrossProcesses, CountsWhatALivingProcessNotifiedAndNotWhatADeadOneDid) {
    const auto counts = [](const char* name) {
        NamedMutex mutex;
        NamedCondition condition;
        EXPECT_TRUE(mutex.create("table") && condition.create(name));
        return waits(condition, mutex, kShort);
    };
    // Each visitor notifies and exits, like a writer that no reader has ever answered.
    const auto visit = [](const char* name) {
        ReadyChild visitor("conditionNotifier", {name});
        visitor.closeInput();
        EXPECT_EQ(visitor.wait(), 0);
    };
    for (int i = 0; i < 3; ++i) {
        visit("unanswered");
        EXPECT_FALSE(counts("unanswered"));
    }
    ReadyChild partner("conditionNotifier", {"partner"});
    for (int i = 0; i < 3; ++i) visit("partner");
    EXPECT_TRUE(counts("partner"));
    partner.killAndWait();
    EXPECT_FALSE(counts("partner"));
}

INSTANTIATE_EACH_BACKEND(NamedConditionTest);
INSTANTIATE_EACH_BACKEND(NamedConditionAcrossProcesses);

}  // namespace
