#include "NamedMutex.h"

#include "FrameworkSupport.h"
#include "NamedObject.h"
#include "ProcessIdentity.h"

using namespace frameworktest;

namespace {

class NamedMutexTest : public EachBackend {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_mutex.create("mutex") && m_other.create("mutex"));
        m_object = NamedObject::open(NamedObject::Kind::Mutex, "mutex");
        ASSERT_TRUE(m_object);
        m_object->words().owner = 0;
    }

    NamedMutex m_mutex;
    NamedMutex m_other;
    std::shared_ptr<NamedObject> m_object;
};

TEST_P(NamedMutexTest, IsReleasedOnlyThroughTheHandleThatHoldsItAndInItsProcess) {
    ASSERT_TRUE(m_mutex.lock());
    EXPECT_FALSE(m_other.unlock());
    EXPECT_FALSE(m_other.lockFor(20ms));
    EXPECT_TRUE(holdsInForkedChild([&] { return !m_mutex.unlock() && !m_mutex.lockFor(10ms); }));
    EXPECT_TRUE(m_mutex.unlock());
    EXPECT_FALSE(m_mutex.unlock());
    EXPECT_TRUE(m_other.lockFor(20ms));
    EXPECT_TRUE(m_other.unlock());
}

// A waiter that is not woken polls every 2 to 5 ms, so it rarely gets the lock within 1 ms. A busy
// machine may also take longer, but not most of the time.
TEST_P(NamedMutexTest, AWaiterIsWokenWhenTheLockIsReleased) {
    int quickOverSlow = 0;
    for (int i = 0; i < 550 && quickOverSlow < 25; ++i) {
        EXPECT_TRUE(m_mutex.lock());
        Clock::time_point got;
        std::thread waiter([&] {
            EXPECT_TRUE(m_other.lockFor(20s));
            got = Clock::now();
            EXPECT_TRUE(m_other.unlock());
        });
        // The waiter marks the word before it sleeps.
        EXPECT_TRUE(
            eventually([&] { return (m_object->words().owner & ProcessIdentity::kUserBit) != 0; }));
        std::this_thread::sleep_for(std::chrono::microseconds(i * 97 % 3000));
        const auto start = Clock::now();
        EXPECT_TRUE(m_mutex.unlock());
        waiter.join();
        quickOverSlow = std::max(0, quickOverSlow + (got - start < 1ms ? 1 : -1));
    }
    EXPECT_EQ(quickOverSlow, 25);
}

TEST_P(NamedMutexTest, AReusedProcessIdIsNotTakenForTheOwnerNorAnotherPidNamespaceForDead) {
    // This process with another start time, and also in another PID namespace.
    const ProcessIdentity::Word gone = ProcessIdentity::own() ^ ProcessIdentity::Word{1} << 30U;
    const ProcessIdentity::Word foreign = gone ^ ProcessIdentity::Word{1} << 50U;
    std::atomic<ProcessIdentity::Word>& owner = m_object->words().owner;
    LogCapture log;
    owner = gone;
    EXPECT_TRUE(m_mutex.lockFor(0ms));
    EXPECT_TRUE(log.contains("Took over named mutex mutex"));
    EXPECT_TRUE(m_mutex.unlock());
    owner = gone;
    EXPECT_TRUE(m_mutex.unlock());
    EXPECT_EQ(owner, 0u);

    owner = foreign;
    EXPECT_FALSE(m_mutex.unlock());
    EXPECT_FALSE(m_mutex.lockFor(30ms));
    EXPECT_EQ(owner & ~ProcessIdentity::kUserBit, foreign);

    // Words of no process.
    for (const ProcessIdentity::Word garbage :
         {foreign & ~(ProcessIdentity::kUserBit - 1), foreign | (ProcessIdentity::kUserBit - 1),
          ProcessIdentity::Word{1}, ~ProcessIdentity::Word{0}}) {
        owner = garbage;
        EXPECT_TRUE(m_mutex.lockFor(1s)) << garbage;
        EXPECT_TRUE(m_mutex.unlock());
    }
}

class NamedMutexAcrossProcesses : public EachBackend {};

constexpr std::size_t kNames = 50;

struct Work {
    std::array<std::atomic<ProcessIdentity::Word>, kNames> inside;  // the holders of the locks
    std::atomic<int> done;
    std::atomic<int> faults;
};

// backend, block, names, rounds: makes each name's mutex; two threads lock and unlock it.
CHILD_ROLE(mutexWorker) {
    useBackend(args[0]);
    SharedBlock<Work> work(args[1]);
    say("ready");
    hear();
    for (std::size_t name = 0; name < std::stoul(args[2]); ++name) {
        NamedMutex mutex;
        if (!mutex.create((args[1] + std::to_string(name)).c_str())) return 1;
        onThreads(2, [&](int) {
            for (int i = std::stoi(args[3]); i > 0; --i, ++work->done) {
                bool right = mutex.lock();
                // A worker killed inside is still registered.
                ProcessIdentity::Word me = ProcessIdentity::own();
                const ProcessIdentity::Word before = work->inside[name].exchange(me);
                right = right && (before == 0 || ProcessIdentity::isGone(before));
                if (!work->inside[name].compare_exchange_strong(me, 0) || !right) ++work->faults;
                mutex.unlock();
            }
        });
    }
    return 0;
}

TEST_P(NamedMutexAcrossProcesses, EightProcessesExcludeEachOtherAndSixteenCreatingANameShareIt) {
    const std::string block = std::string("work") + GetParam();
    SharedBlock<Work> work(block);
    const auto runs = [&](int processes, std::size_t names, int rounds) {
        return runTogether(processes, "mutexWorker",
                           {GetParam(), block, std::to_string(names), std::to_string(rounds)});
    };
    EXPECT_TRUE(runs(16, kNames, 1) && runs(8, 1, rounds(50000)));
    EXPECT_EQ(work->done, 16 * 2 * int{kNames} + 8 * 2 * rounds(50000));
    EXPECT_EQ(work->faults, 0);
}

TEST_P(NamedMutexAcrossProcesses, MutualExclusionHoldsWhileWorkersAreKilled) {
    const std::string block = std::string("killed") + GetParam();
    SharedBlock<Work> work(block);
    std::deque<ReadyChild> workers;
    for (int started = 0; started < 3 + rounds(200); ++started) {
        workers.emplace_back("mutexWorker", Texts{GetParam(), block, "1", "2000000000"});
        workers.back().closeInput();
        if (workers.size() > 3) workers.pop_front();  // which kills it
    }
    NamedMutex mutex;
    ASSERT_TRUE(mutex.create((block + '0').c_str()));
    EXPECT_TRUE(mutex.lock());
    EXPECT_TRUE(mutex.unlock());
    EXPECT_GT(work->done, 0);
    EXPECT_EQ(work->faults, 0);
}

// Locks, and releases when told to.
CHILD_ROLE(mutexHolder) {
    NamedMutex mutex;
    if (!mutex.create("held") || !mutex.lock()) return 1;
    say("ready");
    hear();
    return mutex.unlock() ? 0 : 2;
}

TEST_P(NamedMutexAcrossProcesses, ALivingHolderKeepsItsLockForTwoSecondsAndADeadOneFreesIt) {
    NamedMutex mutex;
    ASSERT_TRUE(mutex.create("held"));
    ReadyChild holder("mutexHolder");
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
        ReadyChild victim("mutexHolder");
        victim.kill();
        // Its output ends when it becomes a zombie, reaped or not.
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
