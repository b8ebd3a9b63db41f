// Real child processes for tests: the test program starts itself again in a named role.
//
//     CHILD_ROLE(writer) {                       // runs in the child; args are the strings given
//         ...; std::puts("ready"); std::fflush(stdout); return 0;
//     }
//     ChildProcess child("writer", {"100"});
//     EXPECT_EQ(child.readLine(), "ready");
//     child.kill();                              // kill -9
//     EXPECT_EQ(child.wait(), 0);
//
// A child starts with no signal blocked.
//
// A suite that starts processes has a name that ends in "AcrossProcesses": emulated runs leave it
// out.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace testsupport {

class ChildProcess {
public:
    // Starts the role. `environment` adds to ("NAME=value") this process's environment.
    explicit ChildProcess(const std::string& role, const std::vector<std::string>& args = {},
                          const std::vector<std::string>& environment = {});
    // Kills the child if it still runs, and reaps it.
    ~ChildProcess();
    ChildProcess(ChildProcess&& other) noexcept;
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return m_pid; }

    // One line of the child's standard output without its end; empty at the end of output or after
    // `timeout`.
    std::string readLine(std::chrono::milliseconds timeout = std::chrono::seconds(20));
    // Writes `line` and a line end to the child's standard input.
    void writeLine(const std::string& line);
    void closeInput();

    void signal(int number) const;
    void kill() const;
    // Kills every child of this process that still runs; for a program that is about to exit.
    static void endAll();

    // The exit status, or 128 + the signal's number; -1 when it did not end within `timeout`.
    int wait(std::chrono::milliseconds timeout = std::chrono::seconds(60));

private:
    pid_t m_pid = -1;
    int m_input = -1;
    int m_output = -1;
    int m_status = -1;
    bool m_reaped = false;
    std::string m_pending;
};

using ChildMain = int (*)(const std::vector<std::string>& args);

struct ChildRole {
    ChildRole(const char* name, ChildMain main);
};

// For main(): whether the command line names a role, and running it (-1 when it names none).
bool isChildRole(int argc, char** argv);
int runChildRole(int argc, char** argv);

}  // namespace testsupport

#define CHILD_ROLE(name)                                                                  \
    static int childRole_##name(const std::vector<std::string>& args);                    \
    static const ::testsupport::ChildRole childRoleEntry_##name(#name, childRole_##name); \
    static int childRole_##name([[maybe_unused]] const std::vector<std::string>& args)
