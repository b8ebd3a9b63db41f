#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <deque>
#include <fstream>
#include <string>
#include <thread>

#include "ActiveVirtualChannelAgentRecorder.h"
#include "AgentMark.h"
#include "ChildProcess.h"
#include "Rounds.h"
#include "SharedBlock.h"

using testsupport::ChildProcess;
using testsupport::hear;
using testsupport::say;
using VDIFrameworkCommon::ActiveVirtualChannelAgentRecorder;
using VDIFrameworkCommon::AgentMark;

namespace {

// Leaves no record behind, whatever a test did to it.
class ActiveAgentAcrossProcesses : public ::testing::Test {
protected:
    ~ActiveAgentAcrossProcesses() override {
        m_recorder.clearActiveVirtualChannelAgent();
        unlink(path().c_str());
    }
    static std::string path() { return AgentMark::pathOf(geteuid()); }

    ActiveVirtualChannelAgentRecorder m_recorder;
};

bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

int statusOf(pid_t child) {
    int status = -1;
    waitpid(child, &status, 0);
    return status;
}

}  // namespace

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

namespace {

std::string markIn(ChildProcess& agent) {
    EXPECT_EQ(agent.readLine(), "ready");
    agent.writeLine("mark");
    return agent.readLine();
}

}  // namespace

TEST_F(ActiveAgentAcrossProcesses, OneProcessAtATimeIsMarkedAndTheOthersSeeIt) {
    EXPECT_FALSE(m_recorder.hasOtherActiveVirtualChannelAgent());
    ChildProcess agent("agent");
    EXPECT_EQ(markIn(agent), "marked");
    EXPECT_TRUE(m_recorder.hasOtherActiveVirtualChannelAgent());
    EXPECT_FALSE(m_recorder.markCurrentVirtualChannelAgentAsActive());
    agent.writeLine("leave");
    EXPECT_EQ(agent.wait(), 0);
    EXPECT_FALSE(exists(path()));
    EXPECT_FALSE(m_recorder.hasOtherActiveVirtualChannelAgent());
    EXPECT_TRUE(m_recorder.markCurrentVirtualChannelAgentAsActive());
    EXPECT_FALSE(m_recorder.hasOtherActiveVirtualChannelAgent());
    ChildProcess late("agent");
    EXPECT_EQ(markIn(late), "not marked");
}

TEST_F(ActiveAgentAcrossProcesses, TheMarkEndsWithItsKilledProcess) {
    for (int i = 0; i < testsupport::rounds(20); ++i) {
        ChildProcess agent("agent");
        ASSERT_EQ(markIn(agent), "marked");
        ASSERT_TRUE(m_recorder.hasOtherActiveVirtualChannelAgent());
        agent.kill();
        agent.wait();
        ASSERT_FALSE(m_recorder.hasOtherActiveVirtualChannelAgent());
    }
}

TEST_F(ActiveAgentAcrossProcesses, OfManyThatMarkAtOnceExactlyOneIs) {
    for (int i = 0; i < testsupport::rounds(10); ++i) {
        std::deque<ChildProcess> agents;
        for (int n = 0; n < 4; ++n) agents.emplace_back("agent");
        for (auto& agent : agents) ASSERT_EQ(agent.readLine(), "ready");
        for (auto& agent : agents) agent.writeLine("mark");
        int marked = 0;
        for (auto& agent : agents) marked += agent.readLine() == "marked" ? 1 : 0;
        ASSERT_EQ(marked, 1);
        for (auto& agent : agents) agent.writeLine("leave");
        for (auto& agent : agents) ASSERT_EQ(agent.wait(), 0);
    }
}

namespace {

struct Contest {
    std::atomic<int> marked;
    std::atomic<int> claims;
    std::atomic<int> conflicts;
};

}  // namespace

CHILD_ROLE(agentContender) {
    testsupport::SharedBlock<Contest> contest("contest");
    ActiveVirtualChannelAgentRecorder recorder;
    for (int i = std::stoi(args[0]); i > 0; --i) {
        if (!recorder.markCurrentVirtualChannelAgentAsActive()) continue;
        ++contest->claims;
        if (contest->marked.fetch_add(1) != 0) ++contest->conflicts;
        --contest->marked;
        recorder.clearActiveVirtualChannelAgent();
    }
    return 0;
}

TEST_F(ActiveAgentAcrossProcesses, RemovingTheFileOnClearingNeverLetsTwoBeMarked) {
    testsupport::SharedBlock<Contest> contest("contest");
    const std::string rounds = std::to_string(testsupport::rounds(60000));
    std::deque<ChildProcess> contenders;
    for (int i = 0; i < 3; ++i) contenders.emplace_back("agentContender", std::vector{rounds});
    for (auto& contender : contenders) EXPECT_EQ(contender.wait(), 0);
    EXPECT_GT(contest->claims, 0);
    EXPECT_EQ(contest->conflicts, 0);
    EXPECT_FALSE(exists(path()));
}

TEST_F(ActiveAgentAcrossProcesses, AllHandlesAndThreadsOfAProcessShareItsMark) {
    {
        ActiveVirtualChannelAgentRecorder first;
        EXPECT_TRUE(first.markCurrentVirtualChannelAgentAsActive());
    }
    EXPECT_TRUE(m_recorder.markCurrentVirtualChannelAgentAsActive());
    std::thread asker([&] {
        for (int i = 0; i < 100; ++i) EXPECT_FALSE(m_recorder.hasOtherActiveVirtualChannelAgent());
    });
    for (int i = 0; i < 100; ++i) EXPECT_TRUE(m_recorder.markCurrentVirtualChannelAgentAsActive());
    asker.join();
    ActiveVirtualChannelAgentRecorder other;
    other.clearActiveVirtualChannelAgent();
    ChildProcess agent("agent");
    EXPECT_EQ(markIn(agent), "marked");
}

TEST_F(ActiveAgentAcrossProcesses, SurvivesTheClosingOfOtherDescriptorsAndItsOwnQuestions) {
    ASSERT_TRUE(m_recorder.markCurrentVirtualChannelAgentAsActive());
    for (int i = 0; i < 3; ++i) {
        close(open("/tmp/norvo", O_RDONLY | O_DIRECTORY));
        EXPECT_FALSE(m_recorder.hasOtherActiveVirtualChannelAgent());
        EXPECT_EQ(AgentMark::ofThisProcess().holderOf(geteuid()), getpid());
    }
    ChildProcess agent("agent");
    EXPECT_EQ(markIn(agent), "not marked");
}

TEST_F(ActiveAgentAcrossProcesses, AForkedChildIsNotMarkedAndDoesNotKeepOrEndTheMark) {
    ASSERT_TRUE(m_recorder.markCurrentVirtualChannelAgentAsActive());
    const pid_t child = fork();
    if (child == 0) {
        ActiveVirtualChannelAgentRecorder recorder;
        const bool right = recorder.hasOtherActiveVirtualChannelAgent() &&
                           !recorder.markCurrentVirtualChannelAgentAsActive();
        recorder.clearActiveVirtualChannelAgent();
        _exit(right ? 0 : 1);
    }
    EXPECT_EQ(statusOf(child), 0);
    ChildProcess agent("agent");
    EXPECT_EQ(markIn(agent), "not marked");
}

TEST_F(ActiveAgentAcrossProcesses, ARecordThatWasClearedAwayIsMadeAnewOrLostToWhoCameFirst) {
    ASSERT_TRUE(m_recorder.markCurrentVirtualChannelAgentAsActive());
    ASSERT_EQ(unlink(path().c_str()), 0);
    EXPECT_FALSE(m_recorder.hasOtherActiveVirtualChannelAgent());
    EXPECT_TRUE(exists(path()));

    ASSERT_EQ(unlink(path().c_str()), 0);
    ChildProcess agent("agent");
    ASSERT_EQ(markIn(agent), "marked");
    EXPECT_TRUE(m_recorder.hasOtherActiveVirtualChannelAgent());
    EXPECT_FALSE(m_recorder.markCurrentVirtualChannelAgentAsActive());
}

CHILD_ROLE(agentClient) {
    ActiveVirtualChannelAgentRecorder::declareClientProcess();
    return ActiveVirtualChannelAgentRecorder().hasOtherActiveVirtualChannelAgent() ? 1 : 0;
}

TEST_F(ActiveAgentAcrossProcesses, AClientProcessHasNoOtherAgent) {
    ASSERT_TRUE(m_recorder.markCurrentVirtualChannelAgentAsActive());
    EXPECT_EQ(ChildProcess("agentClient").wait(), 0);
}

TEST_F(ActiveAgentAcrossProcesses, WhatIsPlantedUnderItsNameIsNotAMarkAndGivesWay) {
    EXPECT_TRUE(m_recorder.markCurrentVirtualChannelAgentAsActive());
    m_recorder.clearActiveVirtualChannelAgent();
    const auto expectClaim = [&] {
        EXPECT_FALSE(m_recorder.hasOtherActiveVirtualChannelAgent());
        EXPECT_TRUE(m_recorder.markCurrentVirtualChannelAgentAsActive());
        m_recorder.clearActiveVirtualChannelAgent();
        EXPECT_FALSE(exists(path()));
    };
    ASSERT_EQ(mkfifo(path().c_str(), 0666), 0);
    expectClaim();
    ASSERT_EQ(symlink("/etc/hostname", path().c_str()), 0);
    expectClaim();

    const std::string other = path() + ".other";
    std::ofstream(other) << "precious";
    ASSERT_EQ(link(other.c_str(), path().c_str()), 0);
    expectClaim();
    std::string text;
    std::ifstream(other) >> text;
    EXPECT_EQ(text, "precious");
    unlink(other.c_str());
}

// Becomes another user, looks at the record of the user given, and tries to appear marked.
CHILD_ROLE(agentStranger) {
    if (setgid(12345) != 0 || setuid(12345) != 0) return 1;
    const uid_t victim = static_cast<uid_t>(std::stoul(args[0]));
    const auto holder = AgentMark::ofThisProcess().holderOf(victim);
    say(holder ? std::to_string(*holder) : "nobody");
    const std::string path = AgentMark::pathOf(victim);
    const int file = open(path.c_str(), O_RDONLY);
    struct flock lock {};
    lock.l_type = F_RDLCK;
    const bool readLocked = file >= 0 && fcntl(file, F_SETLK, &lock) == 0;
    const bool stopped = open(path.c_str(), O_RDWR) < 0 && unlink(path.c_str()) != 0;
    say(std::string(readLocked ? "read lock, " : "no read lock, ") +
        (stopped ? "stopped" : "not stopped"));
    hear();
    return 0;
}

TEST_F(ActiveAgentAcrossProcesses, AnotherUserSeesTheMarkAndCanNeitherForgeNorPreventIt) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to become another user";
    const std::vector<std::string> user{std::to_string(geteuid())};
    {
        ChildProcess agent("agent");
        ASSERT_EQ(markIn(agent), "marked");
        ChildProcess stranger("agentStranger", user);
        EXPECT_EQ(stranger.readLine(), std::to_string(agent.pid()));
        EXPECT_EQ(stranger.readLine(), "no read lock, stopped");
        agent.kill();
        agent.wait();
    }
    ASSERT_TRUE(exists(path()));
    ChildProcess stranger("agentStranger", user);
    EXPECT_EQ(stranger.readLine(), "nobody");
    EXPECT_EQ(stranger.readLine(), "read lock, stopped");
    EXPECT_FALSE(m_recorder.hasOtherActiveVirtualChannelAgent());
    EXPECT_TRUE(m_recorder.markCurrentVirtualChannelAgentAsActive());
}
