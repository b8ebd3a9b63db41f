#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include "FrameworkSupport.h"
#include "NamedMutex.h"

using namespace frameworktest;

// Locks and unlocks while any system call except exit kills the process.
CHILD_ROLE(mutexUserWithoutSystem) {
    NamedMutex mutex;
    if (!mutex.create("quiet") || !mutex.lock() || !mutex.unlock()) return 1;
    if (prctl(PR_SET_SECCOMP, SECCOMP_MODE_STRICT) != 0) return 2;
    bool right = true;
    for (int i = 0; i < 1000; ++i) right = mutex.lock() && mutex.unlock() && right;
    syscall(SYS_exit, right ? 0 : 3);
    return 4;
}

TEST(NamedMutexWithoutSystemAcrossProcesses, AFreeMutexIsLockedAndUnlockedWithoutASystemCall) {
    if (kSanitized) GTEST_SKIP() << "sanitizers make system calls of their own";
    const int status = ChildProcess("mutexUserWithoutSystem").wait();
    if (status == 2) GTEST_SKIP() << "the system does not let us forbid system calls";
    EXPECT_EQ(status, 0);
}
