#include "ProcessIdentity.h"

#include <pthread.h>
#include <sys/resource.h>

#include "FrameworkSupport.h"

using namespace frameworktest;

namespace {

void tellIdentity() { say(std::to_string(ProcessIdentity::own())); }

// With an argument, uses up its descriptors so that it cannot read its own start time.
CHILD_ROLE(identityTeller) {
    if (!args.empty()) {
        const rlimit few{64, 64};
        setrlimit(RLIMIT_NOFILE, &few);
        while (open("/dev/null", O_RDONLY) >= 0) {
        }
    }
    tellIdentity();
    hear();
    return 0;
}

TEST(ProcessIdentityAcrossProcesses, AZombieAndAReapedProcessAreGone) {
    for (const Texts& args : {Texts(), {"no descriptors"}}) {
        ChildProcess child("identityTeller", args);
        const auto word = std::stoull(child.readLine());
        EXPECT_EQ(ProcessIdentity::pid(word), child.pid());
        EXPECT_FALSE(ProcessIdentity::isGone(word));
        EXPECT_FALSE(ProcessIdentity::isGone(word | ProcessIdentity::kUserBit));
        child.kill();
        EXPECT_TRUE(eventually([&] { return ProcessIdentity::isGone(word); }));
        EXPECT_FALSE(ProcessIdentity::hasNoProcess(word));
        child.wait();
        EXPECT_TRUE(ProcessIdentity::isGone(word));
        EXPECT_TRUE(ProcessIdentity::hasNoProcess(word));
    }
}

CHILD_ROLE(identityLeaver) {
    tellIdentity();
    std::thread([] {
        hear();
        say("still here");
        hear();
        _exit(0);
    }).detach();
    pthread_exit(nullptr);
}

TEST(ProcessIdentityAcrossProcesses, AProcessWhoseFirstThreadHasExitedIsAlive) {
    ChildProcess child("identityLeaver");
    const auto word = std::stoull(child.readLine());
    child.writeLine("speak");
    ASSERT_EQ(child.readLine(), "still here");
    for (int i = 0; i < 50; ++i) {
        ASSERT_FALSE(ProcessIdentity::isGone(word));
        usleep(200);
    }
    child.writeLine("leave");
    EXPECT_TRUE(eventually([&] { return ProcessIdentity::isGone(word); }));
}

}  // namespace
