#include "NamedCondition.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <thread>
#include <vector>

#include "Eventually.h"
#include "LogCapture.h"
#include "NamedMutex.h"
#include "SharedBlock.h"

using namespace std::chrono_literals;
using VDIFrameworkCommon::NamedCondition;
using VDIFrameworkCommon::NamedMutex;
using Clock = std::chrono::steady_clock;

namespace {

// Long enough that a wait that should end early never reaches it; short for one that must.
constexpr unsigned kLong = 20000;
constexpr unsigned kShort = 20;

class NamedConditionTest : public testsupport::EachBackend {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_mutex.create("condition mutex"));
        ASSERT_TRUE(m_first.create("condition"));
        ASSERT_TRUE(m_second.create("condition"));
        ASSERT_FALSE(waits(m_first, 0));
        ASSERT_FALSE(waits(m_second, 0));
    }

    bool waits(NamedCondition& condition, unsigned milliseconds) {
        EXPECT_TRUE(m_mutex.lock());
        const bool notified = condition.timed_wait(m_mutex, milliseconds);
        EXPECT_TRUE(m_mutex.unlock());
        return notified;
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

}  // namespace

TEST_P(NamedConditionTest, ANotificationJustBeforeTheWaitSatisfiesItOnce) {
    m_second.notify();
    m_second.notify();
    EXPECT_TRUE(waits(m_first, kLong));
    EXPECT_FALSE(waits(m_first, kShort));
}

TEST_P(NamedConditionTest, OwnEarlierNotificationsDoNotSatisfyAWaitButOthersAmongThemDo) {
    m_first.notify();
    m_first.notify();
    EXPECT_FALSE(waits(m_first, kShort));
    m_first.notify();
    m_second.notify();
    m_first.notify();
    EXPECT_TRUE(waits(m_first, kLong));
    EXPECT_FALSE(waits(m_first, kShort));
    EXPECT_TRUE(waits(m_second, kLong));
}

TEST_P(NamedConditionTest, AWaitLastsItsTimeAndHoldsTheMutexAgainAfterwards) {
    ASSERT_TRUE(m_mutex.lock());
    const auto start = Clock::now();
    EXPECT_FALSE(m_first.timed_wait(m_mutex, 30));
    EXPECT_GE(testsupport::since(start), 30ms);
    NamedMutex other;
    ASSERT_TRUE(other.create("condition mutex"));
    EXPECT_FALSE(other.lockFor(0ms));
    EXPECT_TRUE(m_mutex.unlock());
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
    EXPECT_TRUE(testsupport::eventually([&] {
        EXPECT_TRUE(m_mutex.lock());
        const bool allWait = woken == 4;
        EXPECT_TRUE(m_mutex.unlock());
        return allWait;
    }));
    m_second.notify();
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(woken, 8);
}

TEST_P(NamedConditionTest, ANewHandleCountsWhatAHandleThatStillExistsNotified) {
    m_first.notify();
    NamedCondition fresh;
    ASSERT_TRUE(fresh.create("condition"));
    fresh.notify();
    EXPECT_TRUE(waits(fresh, kLong));
    EXPECT_FALSE(waits(fresh, kShort));
}

TEST_P(NamedConditionTest, ANewHandleDoesNotCountWhatAHandleThatHasGoneNotified) {
    {
        NamedCondition gone;
        ASSERT_TRUE(gone.create("condition"));
        gone.notify();
    }
    NamedCondition fresh;
    ASSERT_TRUE(fresh.create("condition"));
    EXPECT_FALSE(waits(fresh, kShort));
}

TEST_P(NamedConditionTest, AWaitForNobodyDoesNotBurnTheProcessor) {
    // What has paid until now: many short waits.
    for (int i = 0; i < 50; ++i) {
        std::thread peer([&] { m_second.notify(); });
        EXPECT_TRUE(waits(m_first, kLong));
        peer.join();
    }
    const double before = processorMilliseconds();
    EXPECT_FALSE(waits(m_first, 300));
    EXPECT_LT(processorMilliseconds() - before, 60);
}

TEST_P(NamedConditionTest, AHandleThatWasNeverCreatedFailsAtOnce) {
    NamedCondition condition;
    condition.notify();
    EXPECT_FALSE(waits(condition, kLong));
    EXPECT_FALSE(condition.create(""));
}

TEST(NamedConditionLimit, AMutexThatIsNotFreeAgainIsReported) {
    testsupport::LogCapture log;
    NamedMutex mutex;
    NamedCondition condition;
    ASSERT_TRUE(mutex.create("stolen") && condition.create("stolen") && mutex.lock());
    std::thread thief([&] {
        NamedMutex other;
        NamedCondition notifier;
        EXPECT_TRUE(other.create("stolen") && notifier.create("stolen") && other.lockFor(20s));
        notifier.notify();
        // Held until the waiter has given up.
        EXPECT_TRUE(testsupport::eventually([&] { return log.contains("Mutex not free again"); }));
        EXPECT_TRUE(other.unlock());
    });
    EXPECT_FALSE(condition.timed_wait(mutex, kLong));
    EXPECT_FALSE(mutex.unlock());
    thief.join();
}

INSTANTIATE_EACH_BACKEND(NamedConditionTest);
