// An application bundle made for one test, around a small real program (IdleProgram.cpp).
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "TempDir.h"

namespace testsupport {

// Makes <folder>/<name>.app, and has this process take the folder for the one of installed
// applications. At the end it kills what runs of the bundle and removes it.
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

    // The living processes of the program.
    std::vector<pid_t> processes() const;
    // Waits for exactly `count` of them, for at most 20 s. What was found last.
    std::vector<pid_t> waitForProcesses(std::size_t count) const;

private:
    TempDir m_folder;
    std::string m_canonicalFolder;
    std::string m_path;
    std::string m_program;
};

// What runs until it is ended, whatever its arguments; with "stubborn" among them, SIGTERM does not
// end it.
std::string idleProgram();

std::vector<std::string> argumentsOf(pid_t pid);

// The text behind `field` in the system's account of a process ("SigBlk:\t...").
std::string statusOf(pid_t pid, const std::string& field);

}  // namespace testsupport
