#include "ActiveVirtualChannelAgentRecorder.h"
#include "AgentMark.h"
#include "Descriptor.h"
#include "FrameworkSupport.h"

using namespace frameworktest;

namespace {

bool mark() { return ActiveVirtualChannelAgentRecorder().markCurrentVirtualChannelAgentAsActive(); }
void clear() { ActiveVirtualChannelAgentRecorder().clearActiveVirtualChannelAgent(); }
bool seesAnother() {
    return ActiveVirtualChannelAgentRecorder().hasOtherActiveVirtualChannelAgent();
}

// Leaves no record behind.
class ActiveAgentAcrossProcesses : public ::testing::Test {
protected:
    ~ActiveAgentAcrossProcesses() override {
        clear();
        unlink(m_path.c_str());
    }
    bool recordExists() const { return access(m_path.c_str(), F_OK) == 0; }

    const std::string m_path = AgentMark::pathOf(geteuid());
};

// Claims the mark, says "ready" with it, and stays until told to exit.
CHILD_ROLE(agent) {
    say(mark() ? "ready" : "not marked");
    hear();
    clear();
    return 0;
}

TEST_F(ActiveAgentAcrossProcesses, OneProcessAtATimeIsMarkedUntilItClearsTheMarkOrIsKilled) {
    for (int i = 0; i < rounds(20); ++i) {
        const bool killed = i % 2 != 0;
        ReadyChild agent("agent");
        ASSERT_TRUE(seesAnother());
        ASSERT_FALSE(mark());
        killed ? agent.kill() : agent.closeInput();
        ASSERT_EQ(agent.wait(), killed ? 128 + SIGKILL : 0);
        ASSERT_EQ(recordExists(), killed);
        ASSERT_FALSE(seesAnother());
    }
}

// While marked, makes and removes a folder: if two processes did so at a time, one would fail.
CHILD_ROLE(agentContender) {
    say("ready");
    hear();
    for (int i = rounds(30000); i > 0; --i) {
        if (!mark()) continue;
        if (mkdir(args[0].c_str(), 0700) != 0 || rmdir(args[0].c_str()) != 0) return 1;
        clear();
    }
    return 0;
}

TEST_F(ActiveAgentAcrossProcesses, TwoAreNeverMarkedAlthoughClearingRemovesTheFile) {
    EXPECT_TRUE(runTogether(3, "agentContender", {m_path + ".contest"}));
    EXPECT_FALSE(recordExists());
    fs::remove(m_path + ".contest");
}

TEST_F(ActiveAgentAcrossProcesses,
       TheMarkBelongsToTheProcessAndSurvivesUnrelatedDescriptorsAndForks) {
    EXPECT_TRUE(mark());
    EXPECT_TRUE(mark());
    close(open("/tmp/norvo", O_RDONLY | O_DIRECTORY));
    EXPECT_FALSE(seesAnother());
    EXPECT_EQ(AgentMark::ofThisProcess().holderOf(geteuid()), getpid());
    EXPECT_TRUE(holdsInForkedChild([] {
        const bool right = seesAnother() && !mark();
        clear();
        return right;
    }));
    EXPECT_EQ(ChildProcess("agent").readLine(), "not marked");
    clear();
    ReadyChild("agent");
}

TEST_F(ActiveAgentAcrossProcesses, ARemovedRecordIsMadeAnewUnlessAnotherProcessHasComeFirst) {
    ASSERT_TRUE(mark());
    ASSERT_EQ(unlink(m_path.c_str()), 0);
    EXPECT_FALSE(seesAnother());
    EXPECT_TRUE(recordExists());

    ASSERT_EQ(unlink(m_path.c_str()), 0);
    ReadyChild agent("agent");
    EXPECT_TRUE(seesAnother());
    EXPECT_FALSE(mark());
}

TEST_F(ActiveAgentAcrossProcesses, AnythingElseUnderTheNameIsNotAMarkAndIsReplaced) {
    EXPECT_TRUE(mark());  // makes the folder
    clear();
    const std::string other = m_path + ".other";
    std::ofstream(other) << "precious";
    const auto plant = [&](const std::string& what) {
        if (what == "FIFO") return mkfifo(m_path.c_str(), 0666);
        if (what == "symbolic link") return symlink("/etc/hostname", m_path.c_str());
        return link(other.c_str(), m_path.c_str());
    };
    for (const char* what : {"FIFO", "symbolic link", "hard link"}) {
        ASSERT_EQ(plant(what), 0);
        EXPECT_FALSE(seesAnother()) << what;
        EXPECT_TRUE(mark()) << what;
        clear();
        EXPECT_FALSE(recordExists()) << what;
    }
    EXPECT_EQ(contentOf(other), "precious");
    unlink(other.c_str());
}

TEST_F(ActiveAgentAcrossProcesses, AFileThatOthersMayLockForWritingIsNotAMark) {
    EXPECT_TRUE(mark());
    clear();
    struct flock lock {};
    lock.l_type = F_WRLCK;
    for (const mode_t mode : {mode_t{0644}, mode_t{0666}}) {
        const support::Descriptor file(open(m_path.c_str(), O_RDWR | O_CREAT, 0600));
        ASSERT_EQ(fchmod(file.get(), mode), 0);
        ASSERT_EQ(fcntl(file.get(), F_SETLK, &lock), 0);
        EXPECT_TRUE(holdsInForkedChild([&] { return seesAnother() == (mode == 0644); })) << mode;
    }
}

// Becomes another user, reads the given user's record, and tries to forge it.
CHILD_ROLE(agentStranger) {
    if (setgid(12345) != 0 || setuid(12345) != 0) return 1;
    const auto victim = static_cast<uid_t>(std::stoul(args[0]));
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

TEST_F(ActiveAgentAcrossProcesses, AnotherUserSeesTheMarkButCanNeitherForgeNorPreventIt) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to become another user";
    const Texts user{std::to_string(geteuid())};
    ReadyChild agent("agent");
    EXPECT_EQ(ChildProcess("agentStranger", user).readLine(),
              std::to_string(agent.pid()) + ", no read lock, stopped");
    agent.killAndWait();
    ASSERT_TRUE(recordExists());
    ChildProcess stranger("agentStranger", user);
    EXPECT_EQ(stranger.readLine(), "nobody, read lock, stopped");
    EXPECT_FALSE(seesAnother());
    EXPECT_TRUE(mark());
}

}  // namespace
