// Real child processes for tests: the test program runs itself again in a named role.
//
//     CHILD_ROLE(writer) {                       // runs in the child; args are the strings given
//         ...; say("ready"); return 0;
//     }
//     ChildProcess child("writer", {"100"});
//     EXPECT_EQ(child.readLine(), "ready");
//     child.kill();                              // kill -9
//     EXPECT_EQ(child.wait(), 0);
//
// Suites that start processes have names ending in "AcrossProcesses"; emulated runs skip them.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "Subprocess.h"

namespace testsupport {

class ChildProcess : public support::Subprocess {
public:
    // Starts the role. `environment`: see Subprocess.
    explicit ChildProcess(const std::string& role, const std::vector<std::string>& args = {},
                          const std::vector<std::string>& environment = {});
};

using ChildMain = int (*)(const std::vector<std::string>& args);

struct ChildRole {
    ChildRole(const char* name, ChildMain main);
};

// For roles: say() prints a line for the parent's readLine(); hear() waits for a line from the
// parent or the end of input.
void say(const std::string& line);
void hear();

// Starts `count` children of a role that says "ready" and then hear()s, and lets all continue at
// once. Returns whether all exited with 0.
bool runTogether(int count, const std::string& role, const std::vector<std::string>& args = {});

// Whether `holds()` is true in a forked child.
template <class Predicate>
bool holdsInForkedChild(const Predicate& holds) {
    const pid_t child = fork();
    if (child == 0) _exit(holds() ? 0 : 1);
    int status = -1;
    return waitpid(child, &status, 0) == child && status == 0;
}

// For main(): whether the command line names a role; running it gives its result, -1 without one.
bool isChildRole(int argc, char** argv);
int runChildRole(int argc, char** argv);

}  // namespace testsupport

#define CHILD_ROLE(name)                                                                  \
    static int childRole_##name(const std::vector<std::string>& args);                    \
    static const ::testsupport::ChildRole childRoleEntry_##name(#name, childRole_##name); \
    static int childRole_##name([[maybe_unused]] const std::vector<std::string>& args)
