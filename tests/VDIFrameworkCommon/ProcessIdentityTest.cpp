#include "ProcessIdentity.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <thread>

#include "ChildProcess.h"
#include "Eventually.h"

using testsupport::ChildProcess;
using VDIFrameworkCommon::ProcessIdentity;

namespace {

ProcessIdentity::Word identityFrom(ChildProcess& child) { return std::stoull(child.readLine()); }

void tellIdentity() { testsupport::say(std::to_string(ProcessIdentity::own())); }

bool comesToBeGone(ProcessIdentity::Word word) {
    return testsupport::eventually([&] { return ProcessIdentity::isGone(word); });
}

}  // namespace

TEST(ProcessIdentity, AnotherStartTimeIsAnotherProcessAndAnotherNamespaceIsUnknown) {
    const auto own = ProcessIdentity::own();
    EXPECT_EQ(ProcessIdentity::pid(own), getpid());
    EXPECT_EQ(own & ProcessIdentity::kUserBit, 0u);
    EXPECT_FALSE(ProcessIdentity::isGone(own | ProcessIdentity::kUserBit));
    const auto earlier = own ^ (ProcessIdentity::Word{1} << 24);
    EXPECT_TRUE(ProcessIdentity::isGone(earlier));
    EXPECT_FALSE(ProcessIdentity::isGone(earlier ^ (ProcessIdentity::Word{1} << 63)));
}

// Told to, it can no longer look at its own start time.
CHILD_ROLE(identityTeller) {
    if (!args.empty()) {
        const rlimit few{64, 64};
        setrlimit(RLIMIT_NOFILE, &few);
        while (open("/dev/null", O_RDONLY) >= 0) {
        }
    }
    tellIdentity();
    testsupport::hear();
    return 0;
}

TEST(ProcessIdentityAcrossProcesses, AZombieIsGoneAndSoIsOneThatWasReaped) {
    ChildProcess child("identityTeller");
    const auto word = identityFrom(child);
    EXPECT_FALSE(ProcessIdentity::isGone(word));
    child.kill();
    EXPECT_TRUE(comesToBeGone(word));
    EXPECT_FALSE(ProcessIdentity::hasNoProcess(word));
    child.wait();
    EXPECT_TRUE(ProcessIdentity::isGone(word));
    EXPECT_TRUE(ProcessIdentity::hasNoProcess(word));
}

TEST(ProcessIdentityAcrossProcesses, AProcessThatHadNoDescriptorLeftIsNotTakenForDead) {
    ChildProcess child("identityTeller", {"without descriptors"});
    const auto word = identityFrom(child);
    EXPECT_FALSE(ProcessIdentity::isGone(word));
    child.kill();
    EXPECT_TRUE(comesToBeGone(word));
}

CHILD_ROLE(identityLeaver) {
    tellIdentity();
    std::thread([] {
        testsupport::hear();
        testsupport::say("still here");
        testsupport::hear();
        _exit(0);
    }).detach();
    pthread_exit(nullptr);
}

TEST(ProcessIdentityAcrossProcesses, AProcessWhoseFirstThreadHasLeftStillLives) {
    ChildProcess child("identityLeaver");
    const auto word = identityFrom(child);
    child.writeLine("speak");
    ASSERT_EQ(child.readLine(), "still here");
    for (int i = 0; i < 50; ++i) {
        ASSERT_FALSE(ProcessIdentity::isGone(word));
        usleep(200);
    }
    child.writeLine("leave");
    EXPECT_TRUE(comesToBeGone(word));
}

TEST(ProcessIdentityAcrossProcesses, AForkedChildIsAnotherProcess) {
    const auto parent = ProcessIdentity::own();
    EXPECT_TRUE(testsupport::holdsInForkedChild([=] {
        const auto own = ProcessIdentity::own();
        return own != parent && ProcessIdentity::pid(own) == getpid() &&
               !ProcessIdentity::isGone(own) && !ProcessIdentity::isGone(parent);
    }));
}
