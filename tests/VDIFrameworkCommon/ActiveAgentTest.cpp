#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "ActiveVirtualChannelAgentRecorder.h"
#include "AgentMark.h"
#include "ChildProcess.h"
#include "FileContent.h"
#include "Rounds.h"
#include "SharedBlock.h"

using namespace testsupport;
using namespace VDIFrameworkCommon;

namespace {

// Leaves no record behind, whatever a test did to it.
class ActiveAgentAcrossProcesses : public ::testing::Test {
protected:
    ~ActiveAgentAcrossProcesses() override {
        m_recorder.clearActiveVirtualChannelAgent();
        unlink(m_path.c_str());
    }
    bool recordExists() const { return access(m_path.c_str(), F_OK) == 0; }

    const std::string m_path = AgentMark::pathOf(geteuid());
    ActiveVirtualChannelAgentRecorder m_recorder;
};

// Marks itself when told to, says whether it is marked, and stays until told to go.
CHILD_ROLE(agent) {
    ActiveVirtualChannelAgentRecorder recorder;
    say("ready");
    hear();
    say(recorder.markCurrentVirtualChannelAgentAsActive() ? "marked" : "not marked");
    hear();
    recorder.clearActiveVirtualChannelAgent();
    return 0;
}

struct Agent : ChildProcess {
    Agent() : ChildProcess("agent") { EXPECT_EQ(readLine(), "ready"); }
    std::string mark() {
        writeLine("mark");
        return readLine();
    }
};

TEST_F(ActiveAgentAcrossProcesses, OneProcessAtATimeIsMarkedUntilItClearsTheMarkOrIsKilled) {
    for (int i = 0; i < testsupport::rounds(20); ++i) {
        ASSERT_FALSE(m_recorder.hasOtherActiveVirtualChannelAgent());
        Agent agent;
        ASSERT_EQ(agent.mark(), "marked");
        ASSERT_TRUE(m_recorder.hasOtherActiveVirtualChannelAgent());
        ASSERT_FALSE(m_recorder.markCurrentVirtualChannelAgentAsActive());
        if (i % 2 == 0) {
            agent.writeLine("leave");
            ASSERT_EQ(agent.wait(), 0);
            ASSERT_FALSE(recordExists());
        } else {
            agent.kill();
            agent.wait();
        }
    }
    ASSERT_FALSE(m_recorder.hasOtherActiveVirtualChannelAgent());
    EXPECT_TRUE(m_recorder.markCurrentVirtualChannelAgentAsActive());
    EXPECT_FALSE(m_recorder.hasOtherActiveVirtualChannelAgent());
    EXPECT_EQ(Agent().mark(), "not marked");
}

struct Contest {
    std::atomic<int> marked;
    std::atomic<int> claims;
    std::atomic<int> conflicts;
};

CHILD_ROLE(agentContender) {
    SharedBlock<Contest> contest("contest");
    ActiveVirtualChannelAgentRecorder recorder;
    say("ready");
    hear();
    for (int i = testsupport::rounds(60000); i > 0; --i) {
        if (!recorder.markCurrentVirtualChannelAgentAsActive()) continue;
        ++contest->claims;
        if (contest->marked.fetch_add(1) != 0) ++contest->conflicts;
        --contest->marked;
        recorder.clearActiveVirtualChannelAgent();
    }
    return 0;
}

TEST_F(ActiveAgentAcrossProcesses, RemovingTheFileOnClearingNeverLetsTwoBeMarked) {
    SharedBlock<Contest> contest("contest");
    EXPECT_TRUE(runTogether(3, "agentContender"));
    EXPECT_GT(contest->claims, 0);
    EXPECT_EQ(contest->conflicts, 0);
    EXPECT_FALSE(recordExists());
}

TEST_F(ActiveAgentAcrossProcesses, TheMarkIsTheProcesssAndSurvivesUnrelatedDescriptorsAndForks) {
    EXPECT_TRUE(ActiveVirtualChannelAgentRecorder().markCurrentVirtualChannelAgentAsActive());
    EXPECT_TRUE(m_recorder.markCurrentVirtualChannelAgentAsActive());
    for (int i = 0; i < 3; ++i) {
        close(open("/tmp/norvo", O_RDONLY | O_DIRECTORY));
        EXPECT_FALSE(m_recorder.hasOtherActiveVirtualChannelAgent());
        EXPECT_EQ(AgentMark::ofThisProcess().holderOf(geteuid()), getpid());
    }
    EXPECT_TRUE(holdsInForkedChild([] {
        ActiveVirtualChannelAgentRecorder recorder;
        const bool right = recorder.hasOtherActiveVirtualChannelAgent() &&
                           !recorder.markCurrentVirtualChannelAgentAsActive();
        recorder.clearActiveVirtualChannelAgent();
        return right;
    }));
    EXPECT_EQ(Agent().mark(), "not marked");
    ActiveVirtualChannelAgentRecorder().clearActiveVirtualChannelAgent();
    EXPECT_EQ(Agent().mark(), "marked");
}

TEST_F(ActiveAgentAcrossProcesses, ARecordThatWasClearedAwayIsMadeAnewOrLostToWhoCameFirst) {
    ASSERT_TRUE(m_recorder.markCurrentVirtualChannelAgentAsActive());
    ASSERT_EQ(unlink(m_path.c_str()), 0);
    EXPECT_FALSE(m_recorder.hasOtherActiveVirtualChannelAgent());
    EXPECT_TRUE(recordExists());

    ASSERT_EQ(unlink(m_path.c_str()), 0);
    Agent agent;
    ASSERT_EQ(agent.mark(), "marked");
    EXPECT_TRUE(m_recorder.hasOtherActiveVirtualChannelAgent());
    EXPECT_FALSE(m_recorder.markCurrentVirtualChannelAgentAsActive());
}

TEST_F(ActiveAgentAcrossProcesses, WhatIsPlantedUnderItsNameIsNotAMarkAndGivesWay) {
    EXPECT_TRUE(m_recorder.markCurrentVirtualChannelAgentAsActive());
    m_recorder.clearActiveVirtualChannelAgent();
    const auto expectClaim = [&] {
        EXPECT_FALSE(m_recorder.hasOtherActiveVirtualChannelAgent());
        EXPECT_TRUE(m_recorder.markCurrentVirtualChannelAgentAsActive());
        m_recorder.clearActiveVirtualChannelAgent();
        EXPECT_FALSE(recordExists());
    };
    ASSERT_EQ(mkfifo(m_path.c_str(), 0666), 0);
    expectClaim();
    ASSERT_EQ(symlink("/etc/hostname", m_path.c_str()), 0);
    expectClaim();
    const std::string other = m_path + ".other";
    std::ofstream(other) << "precious";
    ASSERT_EQ(link(other.c_str(), m_path.c_str()), 0);
    expectClaim();
    EXPECT_EQ(contentOf(other), "precious");
    unlink(other.c_str());
}

CHILD_ROLE(agentFileLocker) {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    say(fcntl(open(args[0].c_str(), O_RDWR), F_SETLK, &lock) == 0 ? "locked" : "not locked");
    hear();
    return 0;
}

TEST_F(ActiveAgentAcrossProcesses, AFileThatOthersMayLockForWritingIsNotAMark) {
    for (const mode_t mode : {mode_t{0644}, mode_t{0666}}) {
        std::ofstream(m_path).flush();
        ASSERT_EQ(chmod(m_path.c_str(), mode), 0);
        ChildProcess locker("agentFileLocker", {m_path});
        ASSERT_EQ(locker.readLine(), "locked");
        EXPECT_EQ(m_recorder.hasOtherActiveVirtualChannelAgent(), mode == 0644);
    }
}

// Becomes another user, looks at the record of the user given, and tries to appear marked.
CHILD_ROLE(agentStranger) {
    if (setgid(12345) != 0 || setuid(12345) != 0) return 1;
    const uid_t victim = static_cast<uid_t>(std::stoul(args[0]));
    const auto holder = AgentMark::ofThisProcess().holderOf(victim);
    const std::string path = AgentMark::pathOf(victim);
    const int file = open(path.c_str(), O_RDONLY);
    struct flock lock {};
    lock.l_type = F_RDLCK;
    const bool readLocked = file >= 0 && fcntl(file, F_SETLK, &lock) == 0;
    const bool stopped = open(path.c_str(), O_RDWR) < 0 && unlink(path.c_str()) != 0;
    say((holder ? std::to_string(*holder) : "nobody") +
        (readLocked ? ", read lock, " : ", no read lock, ") + (stopped ? "stopped" : "forged"));
    hear();
    return 0;
}

TEST_F(ActiveAgentAcrossProcesses, AnotherUserSeesTheMarkAndCanNeitherForgeNorPreventIt) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to become another user";
    const std::vector<std::string> user{std::to_string(geteuid())};
    Agent agent;
    ASSERT_EQ(agent.mark(), "marked");
    EXPECT_EQ(ChildProcess("agentStranger", user).readLine(),
              std::to_string(agent.pid()) + ", no read lock, stopped");
    agent.kill();
    agent.wait();
    ASSERT_TRUE(recordExists());
    ChildProcess stranger("agentStranger", user);
    EXPECT_EQ(stranger.readLine(), "nobody, read lock, stopped");
    EXPECT_FALSE(m_recorder.hasOtherActiveVirtualChannelAgent());
    EXPECT_TRUE(m_recorder.markCurrentVirtualChannelAgentAsActive());
}

}  // namespace
