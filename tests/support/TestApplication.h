// An application bundle for one test, with a small real program (IdleProgram.cpp).
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "TempDir.h"

namespace testsupport {

// Makes <folder>/<name>.app, and makes this process use the folder as that of installed
// applications. At the end kills the bundle's processes and removes it.
class TestApplication {
public:
    TestApplication(const std::string& name, const std::string& identifier);
    ~TestApplication();
    TestApplication(const TestApplication&) = delete;
    TestApplication& operator=(const TestApplication&) = delete;

    const std::string& folder() const { return m_canonicalFolder; }
    const std::string& path() const { return m_path; }
    // The program's path inside the bundle.
    const std::string& program() const { return m_program; }

    // The running processes of the program.
    std::vector<pid_t> processes() const;
    // Waits, at most 20 s, until there are exactly `count`. Returns those found last.
    std::vector<pid_t> waitForProcesses(std::size_t count) const;

private:
    TempDir m_folder;
    std::string m_canonicalFolder;
    std::string m_path;
    std::string m_program;
};

// The path of a program that runs until terminated, whatever its arguments; with "stubborn" among
// them, it ignores SIGTERM.
std::string idleProgram();

std::vector<std::string> argumentsOf(pid_t pid);

// The text after `field` in the process's /proc status ("SigBlk:\t...").
std::string statusOf(pid_t pid, const std::string& field);

}  // namespace testsupport
