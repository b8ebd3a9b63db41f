// Obstacles that another user creates for the active agent's record. Needs root, to switch users.
#include <sched.h>
#include <sys/mount.h>

#include "ActiveVirtualChannelAgentRecorder.h"
#include "AgentMark.h"
#include "FrameworkSupport.h"

using namespace frameworktest;

namespace {

// Creates an obstacle for a user, becomes that user, and tells what was logged when this process,
// and no other of the user's, could still be marked.
CHILD_ROLE(agentObstructed) {
    constexpr uid_t kVictim = 12345;
    const std::string path = AgentMark::pathOf(kVictim);
    if (args[0] == "folder" && mkdir(path.c_str(), 0755) != 0) return 1;
    if (args[0] == "file") std::ofstream(path) << "norvo agent 1\n";
    const bool mounted = args[0] == "closed" && unshare(CLONE_NEWNS) == 0 &&
                         mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                         mount("tmpfs", "/tmp/norvo", "tmpfs", 0, "mode=0755") == 0;
    if (args[0] == "closed" && !mounted) return say("cannot mount"), 0;
    if (setgid(kVictim) != 0 || setuid(kVictim) != 0) return 1;
    LogCapture log;
    ActiveVirtualChannelAgentRecorder recorder;
    const bool marked = recorder.markCurrentVirtualChannelAgentAsActive();
    const bool alone = holdsInForkedChild([] {
        ActiveVirtualChannelAgentRecorder other;
        return other.hasOtherActiveVirtualChannelAgent() &&
               !other.markCurrentVirtualChannelAgentAsActive();
    });
    recorder.clearActiveVirtualChannelAgent();
    const bool cleared = !AgentMark::ofThisProcess().holderOf(kVictim);
    say(marked && alone && cleared ? log.lines().at(0) : "not marked alone, or not cleared");
    return 0;
}

TEST(ActiveAgentObstacleAcrossProcesses, ObstaclesOfAnotherUserAreNamedAndTheMarkIsPutElsewhere) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to become another user";
    ActiveVirtualChannelAgentRecorder recorder;  // makes the folder
    EXPECT_TRUE(recorder.markCurrentVirtualChannelAgentAsActive());
    recorder.clearActiveVirtualChannelAgent();
    const std::string path = AgentMark::pathOf(12345);
    const std::pair<std::string, std::string> cases[] = {
        {"file", path + " (file of user 0, mode "},
        {"folder", path + " (folder of user 0, mode 755)"},
        {"closed", "/tmp/norvo (folder of user 0, mode 755)"}};
    for (const auto& [obstacle, named] : cases) {
        const std::string said = ChildProcess("agentObstructed", {obstacle}).readLine();
        fs::remove_all(path);
        fs::remove_all("/tmp/norvo-12345");
        if (said == "cannot mount") continue;
        EXPECT_TRUE(said.starts_with("Marked the active agent elsewhere, because of " + named))
            << said;
    }
}

}  // namespace
