#include "NamedMutex.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <thread>
#include <vector>

#include "ChildProcess.h"
#include "Eventually.h"
#include "LogCapture.h"
#include "NamedObject.h"
#include "ProcessIdentity.h"
#include "Rounds.h"
#include "SharedBlock.h"

using namespace std::chrono_literals;
using namespace testsupport;
using namespace VDIFrameworkCommon;
using Clock = std::chrono::steady_clock;

namespace {

class NamedMutexTest : public EachBackend {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_mutex.create("mutex"));
        m_object = NamedObject::open(NamedObject::Kind::Mutex, "mutex");
        ASSERT_TRUE(m_object);
        m_object->words().owner = 0;
    }

    NamedMutex m_mutex;
    std::shared_ptr<NamedObject> m_object;
};

// This process as it would be known with another start time or in another namespace.
ProcessIdentity::Word own(std::uint64_t changedBits) {
    return ProcessIdentity::own() ^ changedBits;
}
constexpr std::uint64_t kOtherStartTime = std::uint64_t{1} << 30;
constexpr std::uint64_t kOtherNamespace = std::uint64_t{1} << 50;

TEST_P(NamedMutexTest, ExcludesThreadsThatShareOneHandleAndThoseThatDoNot) {
    int counter = 0;
    const int rounds = testsupport::rounds(20000);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&, i] {
            NamedMutex other;
            EXPECT_TRUE(other.create("mutex"));
            NamedMutex& mutex = i % 2 == 0 ? m_mutex : other;
            for (int round = 0; round < rounds; ++round) {
                EXPECT_TRUE(mutex.lock());
                ++counter;
                EXPECT_TRUE(mutex.unlock());
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(counter, 4 * rounds);
}

TEST_P(NamedMutexTest, IsReleasedOnlyThroughTheHandleThatHoldsItAndInItsProcess) {
    NamedMutex other;
    ASSERT_TRUE(other.create("mutex"));
    ASSERT_TRUE(m_mutex.lock());
    EXPECT_FALSE(other.unlock());
    EXPECT_FALSE(other.lockFor(20ms));
    EXPECT_TRUE(holdsInForkedChild([&] { return !m_mutex.unlock() && !m_mutex.lockFor(10ms); }));
    EXPECT_TRUE(m_mutex.unlock());
    EXPECT_FALSE(m_mutex.unlock());
    EXPECT_TRUE(other.lockFor(20ms));
    EXPECT_TRUE(other.unlock());
}

// How long 50 waiters, one after another, take to get a lock that is released: the median.
std::chrono::microseconds medianWakeUp(NamedMutex& mutex, const NamedObjectWords& words) {
    std::vector<Clock::duration> wakeUps;
    for (int i = 0; i < 50; ++i) {
        EXPECT_TRUE(mutex.lock());
        Clock::time_point got;
        std::thread waiter([&] {
            NamedMutex other;
            EXPECT_TRUE(other.create("mutex") && other.lockFor(20s));
            got = Clock::now();
            EXPECT_TRUE(other.unlock());
        });
        // The waiter leaves its mark on the word when it is about to sleep.
        EXPECT_TRUE(eventually([&] { return (words.owner & ProcessIdentity::kUserBit) != 0; }));
        std::this_thread::sleep_for(std::chrono::microseconds(i * 97 % 3000));
        const auto start = Clock::now();
        EXPECT_TRUE(mutex.unlock());
        waiter.join();
        wakeUps.push_back(got - start);
    }
    std::nth_element(wakeUps.begin(), wakeUps.begin() + 25, wakeUps.end());
    return std::chrono::duration_cast<std::chrono::microseconds>(wakeUps[25]);
}

// A waiter that nobody wakes looks by itself after 2 to 5 ms. A busy machine may take as long, but
// not every time.
TEST_P(NamedMutexTest, AWaiterIsWokenWhenTheLockIsReleased) {
    auto median = medianWakeUp(m_mutex, m_object->words());
    for (int again = 0; again < 10 && median >= 1ms; ++again)
        median = medianWakeUp(m_mutex, m_object->words());
    EXPECT_LT(median, 1ms);
}

TEST_P(NamedMutexTest, AReusedProcessIdIsNotTakenForTheOwnerNorOneOfAnotherNamespaceForDead) {
    LogCapture log;
    m_object->words().owner = own(kOtherStartTime);
    EXPECT_TRUE(m_mutex.lockFor(1s));
    EXPECT_TRUE(log.contains("Took over named mutex mutex"));
    EXPECT_TRUE(m_mutex.unlock());
    m_object->words().owner = own(kOtherStartTime);
    EXPECT_TRUE(m_mutex.unlock());
    EXPECT_EQ(m_object->words().owner, 0u);

    const auto foreign = own(kOtherNamespace | kOtherStartTime);
    m_object->words().owner = foreign;
    EXPECT_FALSE(m_mutex.unlock());
    EXPECT_FALSE(m_mutex.lockFor(30ms));
    EXPECT_EQ(m_object->words().owner & ~ProcessIdentity::kUserBit, foreign);

    // No process has such a word: somebody has written over it.
    for (const ProcessIdentity::Word garbage :
         {foreign & ~(ProcessIdentity::kUserBit - 1), foreign | (ProcessIdentity::kUserBit - 1),
          ProcessIdentity::Word{1}, ~ProcessIdentity::Word{0}}) {
        m_object->words().owner = garbage;
        EXPECT_TRUE(m_mutex.lockFor(1s)) << garbage;
        EXPECT_TRUE(m_mutex.unlock());
    }
}

TEST_P(NamedMutexTest, AHandleThatWasNeverCreatedFailsAtOnce) {
    NamedMutex mutex;
    EXPECT_FALSE(mutex.lock());
    EXPECT_FALSE(mutex.unlock());
    LogCapture log;
    EXPECT_FALSE(mutex.create(""));
    EXPECT_FALSE(mutex.create(nullptr));
    EXPECT_EQ(log.count("A named mutex needs a name"), 2);
}

class NamedMutexAcrossProcesses : public EachBackend {};

constexpr int kNames = 50;

struct Counters {
    // Changed under the lock only.
    long counts[kNames];
    // The process that is inside the lock.
    std::atomic<std::uint64_t> inside;
    std::atomic<int> violations;
    std::atomic<int> timeouts;
};

// backend, names, rounds: makes each name's mutex and counts under it.
CHILD_ROLE(mutexCounter) {
    useBackend(args[0]);
    SharedBlock<Counters> shared("counters");
    say("ready");
    hear();
    for (int name = 0; name < std::stoi(args[1]); ++name) {
        NamedMutex mutex;
        if (!mutex.create(("counted" + std::to_string(name)).c_str())) return 1;
        for (int i = std::stoi(args[2]); i > 0; --i) {
            if (!mutex.lock()) return 2;
            ++shared->counts[name];
            if (!mutex.unlock()) return 3;
        }
    }
    return 0;
}

TEST_P(NamedMutexAcrossProcesses, EightCountExactlyAndSixteenThatCreateANameAtOnceShareIt) {
    SharedBlock<Counters> shared("counters");
    const auto expectExactly = [&](int processes, int names, int rounds) {
        for (long& count : shared->counts) count = 0;
        EXPECT_TRUE(runTogether(processes, "mutexCounter",
                                {GetParam(), std::to_string(names), std::to_string(rounds)}));
        for (int name = 0; name < names; ++name)
            EXPECT_EQ(shared->counts[name], processes * rounds) << name;
    };
    expectExactly(16, kNames, 1);
    expectExactly(8, 1, testsupport::rounds(100000));
}

// Locks, and releases when told to.
CHILD_ROLE(mutexHolder) {
    NamedMutex mutex;
    if (!mutex.create("held") || !mutex.lock()) return 1;
    say("held");
    hear();
    return mutex.unlock() ? 0 : 2;
}

CHILD_ROLE(mutexWorker) {
    useBackend(args[0]);
    NamedMutex mutex;
    SharedBlock<Counters> shared("workers");
    if (!mutex.create("worked")) return 1;
    say("ready");
    for (;;) {
        if (!mutex.lock()) {
            ++shared->timeouts;
            continue;
        }
        // One that was killed inside is still written there.
        const std::uint64_t before = shared->inside.exchange(ProcessIdentity::own());
        if (before != 0 && !ProcessIdentity::isGone(before)) ++shared->violations;
        ++shared->counts[0];
        std::uint64_t me = ProcessIdentity::own();
        if (!shared->inside.compare_exchange_strong(me, 0)) ++shared->violations;
        mutex.unlock();
    }
}

TEST_P(NamedMutexAcrossProcesses, MutualExclusionHoldsWhileWorkersAreKilled) {
    SharedBlock<Counters> shared("workers");
    shared->inside = 0;
    shared->counts[0] = 0;
    std::deque<ChildProcess> workers;
    const auto start = [&] {
        workers.emplace_back("mutexWorker", std::vector<std::string>{GetParam()});
        ASSERT_EQ(workers.back().readLine(), "ready");
    };
    for (int i = 0; i < 3; ++i) start();
    for (int kills = 0; kills < testsupport::rounds(200); ++kills) {
        start();
        workers.front().kill();
        workers.pop_front();
    }
    NamedMutex mutex;
    ASSERT_TRUE(mutex.create("worked"));
    const long before = shared->counts[0];
    EXPECT_TRUE(mutex.lock());
    EXPECT_TRUE(mutex.unlock());
    EXPECT_GT(before, 0);
    EXPECT_EQ(shared->violations, 0);
    EXPECT_EQ(shared->timeouts, 0);
}

TEST_P(NamedMutexAcrossProcesses, ALivingHolderKeepsItsLockForTwoSecondsAndADeadOneFreesIt) {
    NamedMutex mutex;
    ASSERT_TRUE(mutex.create("held"));
    ChildProcess holder("mutexHolder");
    ASSERT_EQ(holder.readLine(), "held");
    EXPECT_FALSE(mutex.unlock());
    const auto start = Clock::now();
    EXPECT_FALSE(mutex.lock());
    const auto waited = since(start);
    EXPECT_GE(waited, 2000ms);
    EXPECT_LT(waited, 4000ms);
    holder.writeLine("release");
    EXPECT_EQ(holder.wait(), 0);

    auto quickest = Clock::duration::max();
    for (int i = 0; i < 10; ++i) {
        ChildProcess victim("mutexHolder");
        ASSERT_EQ(victim.readLine(), "held");
        victim.kill();
        // Its output ends when it has become a zombie; it need not be reaped.
        EXPECT_EQ(victim.readLine(), "");
        if (i % 2 == 0) victim.wait();
        const auto ended = Clock::now();
        ASSERT_TRUE(i < 5 ? mutex.lock() : eventually([&] { return mutex.unlock(); }));
        quickest = std::min(quickest, Clock::now() - ended);
        EXPECT_TRUE(i < 5 ? mutex.unlock() : mutex.lockFor(0ms) && mutex.unlock());
    }
    EXPECT_LT(quickest, 50ms);
}

INSTANTIATE_EACH_BACKEND(NamedMutexTest);
INSTANTIATE_EACH_BACKEND(NamedMutexAcrossProcesses);

}  // namespace
