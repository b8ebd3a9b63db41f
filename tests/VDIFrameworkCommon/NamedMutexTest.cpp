#include "NamedMutex.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <deque>
#include <fstream>
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

// A waiter that nobody wakes finds out after its time slice, two milliseconds at first.
TEST_P(NamedMutexTest, AWaiterIsWokenWhenTheLockIsReleased) {
    std::vector<Clock::duration> delays;
    for (int i = 0; i < 51; ++i) {
        ASSERT_TRUE(m_mutex.lock());
        Clock::time_point locked;
        std::thread waiter([&locked] {
            NamedMutex mutex;
            EXPECT_TRUE(mutex.create("mutex"));
            EXPECT_TRUE(mutex.lockFor(20s));
            locked = Clock::now();
            EXPECT_TRUE(mutex.unlock());
        });
        // The waiter leaves its mark on the word when it is about to sleep.
        EXPECT_TRUE(
            eventually([&] { return (m_object->words().owner & ProcessIdentity::kUserBit) != 0; }));
        std::this_thread::sleep_for(200us);
        const auto released = Clock::now();
        EXPECT_TRUE(m_mutex.unlock());
        waiter.join();
        delays.push_back(locked - released);
    }
    std::sort(delays.begin(), delays.end());
    EXPECT_LT(delays[delays.size() / 2], 1ms);
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
constexpr auto kTakeOverLimit = kSanitized ? 1000ms : 50ms;

struct Counters {
    // Changed under the lock only.
    long counts[kNames];
    // The process that is inside the lock.
    std::atomic<std::uint64_t> inside;
    std::atomic<int> violations;
    std::atomic<int> timeouts;
};

std::int64_t nanoseconds() { return Clock::now().time_since_epoch().count(); }

// How long the calling thread has had to wait for a processor in its life, in ns; 0 where the
// system does not tell. Format: the kernel's scheduler/sched-stats.rst.
std::int64_t heldBack() {
    std::int64_t ran = 0;
    std::int64_t waited = 0;
    std::ifstream("/proc/thread-self/schedstat") >> ran >> waited;
    return waited;
}

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

// Locks, and when told a delay (in microseconds) kills itself after it.
CHILD_ROLE(mutexHolder) {
    NamedMutex mutex;
    if (!mutex.create("held") || !mutex.lock()) return 1;
    say("held");
    if (args.empty()) {
        hear();
        return mutex.unlock() ? 0 : 2;
    }
    usleep(static_cast<useconds_t>(std::stoi(args[0])));
    std::raise(SIGKILL);
    return 3;
}

// What a machine with much to do adds is left out: a dying process must run to its end first (its
// output ends just before it does), and a waiter must get a processor.
TEST_P(NamedMutexAcrossProcesses, AKilledHolderDelaysAWaiterForLessThan50Milliseconds) {
    NamedMutex mutex;
    ASSERT_TRUE(mutex.create("held"));
    std::chrono::nanoseconds longest{0};
    for (int i = 0; i < testsupport::rounds(200); ++i) {
        ChildProcess holder("mutexHolder", {std::to_string(200 + i * 37 % 4000)});
        ASSERT_EQ(holder.readLine(), "held");
        std::int64_t ended = 0;
        std::thread watcher([&] {
            EXPECT_EQ(holder.readLine(), "");
            ended = nanoseconds();
        });
        const std::int64_t heldBackBefore = heldBack();
        const bool locked = mutex.lock();
        const std::int64_t taken = nanoseconds() - (heldBack() - heldBackBefore);
        watcher.join();
        ASSERT_TRUE(locked && mutex.unlock());
        longest = std::max(longest, std::chrono::nanoseconds(taken - ended));
    }
    RecordProperty("longestMicroseconds", static_cast<int>(longest.count() / 1000));
    EXPECT_LT(longest, kTakeOverLimit);
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

    for (const bool reaped : {false, true}) {
        ChildProcess victim("mutexHolder");
        ASSERT_EQ(victim.readLine(), "held");
        victim.kill();
        if (reaped)
            victim.wait();
        else
            EXPECT_EQ(victim.readLine(), "") << "its output ends when it has become a zombie";
        EXPECT_TRUE(eventually([&] { return mutex.unlock(); }));
        EXPECT_TRUE(mutex.lockFor(0ms));
        EXPECT_TRUE(mutex.unlock());
    }
}

INSTANTIATE_EACH_BACKEND(NamedMutexTest);
INSTANTIATE_EACH_BACKEND(NamedMutexAcrossProcesses);

}  // namespace
