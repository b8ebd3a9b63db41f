#include "NamedMutex.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <thread>
#include <vector>

#include "Eventually.h"
#include "LogCapture.h"
#include "NamedObject.h"
#include "Rounds.h"
#include "SharedBlock.h"

using namespace std::chrono_literals;
using testsupport::LogCapture;
using VDIFrameworkCommon::NamedMutex;
using VDIFrameworkCommon::NamedObject;
using VDIFrameworkCommon::ProcessIdentity;

namespace {

class NamedMutexTest : public testsupport::EachBackend {
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

}  // namespace

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

TEST_P(NamedMutexTest, IsReleasedOnlyThroughTheHandleThatHoldsIt) {
    NamedMutex other;
    ASSERT_TRUE(other.create("mutex"));
    ASSERT_TRUE(m_mutex.lock());
    EXPECT_FALSE(other.unlock());
    EXPECT_FALSE(other.lockFor(20ms));
    EXPECT_TRUE(m_mutex.unlock());
    EXPECT_FALSE(m_mutex.unlock());
    EXPECT_TRUE(other.lockFor(20ms));
    EXPECT_TRUE(other.unlock());
}

TEST_P(NamedMutexTest, AWaiterGetsTheLockWhenItIsReleasedNotWhenItsTimeIsOver) {
    ASSERT_TRUE(m_mutex.lock());
    std::thread waiter([] {
        NamedMutex mutex;
        EXPECT_TRUE(mutex.create("mutex"));
        EXPECT_TRUE(mutex.lockFor(20s));
        EXPECT_TRUE(mutex.unlock());
    });
    // The waiter leaves its mark on the word when it is about to sleep.
    EXPECT_TRUE(testsupport::eventually(
        [&] { return (m_object->words().owner & ProcessIdentity::kUserBit) != 0; }));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(m_mutex.unlock());
    waiter.join();
    EXPECT_LT(testsupport::since(start), 5s);
}

TEST_P(NamedMutexTest, AReusedProcessIdIsNotTakenForTheOwner) {
    LogCapture log;
    m_object->words().owner = own(kOtherStartTime);
    EXPECT_TRUE(m_mutex.lockFor(1s));
    EXPECT_TRUE(log.contains("Took over named mutex mutex"));
    EXPECT_TRUE(m_mutex.unlock());

    m_object->words().owner = own(kOtherStartTime);
    EXPECT_TRUE(m_mutex.unlock());
    EXPECT_EQ(m_object->words().owner, 0u);
}

TEST_P(NamedMutexTest, AnOwnerInAnotherNamespaceIsNeverTakenForDead) {
    const auto foreign = own(kOtherNamespace | kOtherStartTime);
    m_object->words().owner = foreign;
    EXPECT_FALSE(m_mutex.unlock());
    EXPECT_FALSE(m_mutex.lockFor(30ms));
    EXPECT_EQ(m_object->words().owner & ~ProcessIdentity::kUserBit, foreign);
}

TEST_P(NamedMutexTest, AForkedChildHoldsNothingOfItsParents) {
    ASSERT_TRUE(m_mutex.lock());
    const pid_t child = fork();
    if (child == 0) {
        const bool wrong = m_mutex.unlock() || m_mutex.lockFor(10ms);
        _exit(wrong ? 1 : 0);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(m_mutex.unlock());
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

INSTANTIATE_EACH_BACKEND(NamedMutexTest);
