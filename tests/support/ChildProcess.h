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

#include <cstdio>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "OwnPath.h"
#include "Subprocess.h"

namespace testsupport {

using ChildMain = int (*)(const std::vector<std::string>& args);

inline constexpr char kRoleFlag[] = "--child-role";

inline std::map<std::string, ChildMain>& childRoles() {
    static std::map<std::string, ChildMain> all;
    return all;
}

struct ChildRole {
    ChildRole(const char* name, ChildMain main) { childRoles()[name] = main; }
};

// For main(): whether the command line names a role; running it gives its result, -1 without one.
inline bool isChildRole(int argc, char** argv) {
    return argc >= 3 && argv[1] == std::string(kRoleFlag);
}
inline int runChildRole(int argc, char** argv) {
    if (!isChildRole(argc, argv)) return -1;
    const auto role = childRoles().find(argv[2]);
    if (role == childRoles().end()) return 127;
    return role->second(std::vector<std::string>(argv + 3, argv + argc));
}

class ChildProcess : public support::Subprocess {
public:
    // Starts the role. `environment`: see Subprocess.
    explicit ChildProcess(const std::string& role, const std::vector<std::string>& args = {},
                          const std::vector<std::string>& environment = {})
        : Subprocess(commandLine(role, args), environment) {}

    int killAndWait() {
        kill();
        return wait();
    }

private:
    static std::vector<std::string> commandLine(const std::string& role,
                                                std::vector<std::string> args) {
        args.insert(args.begin(), {support::ownPath(), kRoleFlag, role});
        return args;
    }
};

// For roles: say() prints a line for the parent's readLine(); hear() waits for a line from the
// parent or the end of input.
inline void say(const std::string& line) {
    std::puts(line.c_str());
    std::fflush(stdout);
}

inline void hear() {
    int c = 0;
    while ((c = std::getchar()) != EOF && c != '\n') {
    }
}

// Starts `count` children of a role that says "ready" and then hear()s, and lets all continue at
// once. Returns whether all exited with 0.
inline bool runTogether(int count, const std::string& role,
                        const std::vector<std::string>& args = {}) {
    std::deque<ChildProcess> children;
    for (int i = 0; i < count; ++i) children.emplace_back(role, args);
    bool well = true;
    for (auto& child : children) well = child.readLine() == "ready" && well;
    for (auto& child : children) child.closeInput();
    for (auto& child : children) well = child.wait() == 0 && well;
    return well;
}

// Whether `holds()` is true in a forked child.
template <class Predicate>
bool holdsInForkedChild(const Predicate& holds) {
    const pid_t child = fork();
    if (child == 0) _exit(holds() ? 0 : 1);
    int status = -1;
    return waitpid(child, &status, 0) == child && status == 0;
}

}  // namespace testsupport

#define CHILD_ROLE(name)                                                                  \
    static int childRole_##name(const std::vector<std::string>& args);                    \
    static const ::testsupport::ChildRole childRoleEntry_##name(#name, childRole_##name); \
    static int childRole_##name([[maybe_unused]] const std::vector<std::string>& args)
