// One end of a session for tests that run real programs, and helpers to read their output.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "Subprocess.h"
#include "TempDir.h"

namespace testsupport {

struct Outcome {
    int status;
    std::string text;  // standard output and standard error
};

// A session namespace with its own home directory and files, and the programs run in it. Removes
// what is left of the session.
class UserEnd {
public:
    UserEnd();  // in a unique namespace
    explicit UserEnd(std::string sessionNamespace);
    ~UserEnd();
    UserEnd(const UserEnd&) = delete;
    UserEnd& operator=(const UserEnd&) = delete;

    const std::string& name() const { return m_namespace; }
    std::string file(const std::string& name) const { return m_directory / name; }
    // The plug-in's log so far, without what a running host has not flushed yet.
    std::string log() const;
    // The environment that makes a process part of this end.
    std::vector<std::string> environment() const;

    // Starts `vcctl ARGUMENTS` as in a shell, with standard error joined to standard output.
    support::Subprocess start(const std::string& arguments) const;
    support::Subprocess startShell(const std::string& command,
                                   const std::vector<std::string>& environment = {}) const;
    Outcome run(const std::string& arguments) const;
    void succeeds(const std::string& arguments, const std::string& part = {}) const;

private:
    const std::string m_namespace;
    const TempDir m_directory;
};

void expectPart(const std::string& text, const std::string& part);

// Waits for a line of the process. If it does not come, fails the test and returns all other
// output.
std::string lineStarting(support::Subprocess& process, const std::string& start);
std::string lineWith(support::Subprocess& process, const std::string& part);

// Makes a file of `size` non-repeating bytes and returns its content.
std::string makeFile(const std::string& path, std::size_t size);

std::vector<pid_t> childrenOf(pid_t process);

}  // namespace testsupport
