// One end of a session for tests that run real programs, and what they read from these.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "Subprocess.h"
#include "TempDir.h"

namespace testsupport {

struct Outcome {
    int status;
    std::string text;  // of standard output and standard error
};

// A session namespace with a home directory and files of its own, and what runs in it. What is left
// of the session goes with it.
class UserEnd {
public:
    UserEnd();  // a namespace that no other one has
    explicit UserEnd(std::string sessionNamespace);
    ~UserEnd();
    UserEnd(const UserEnd&) = delete;
    UserEnd& operator=(const UserEnd&) = delete;

    const std::string& name() const { return m_namespace; }
    std::string file(const std::string& name) const { return m_directory / name; }
    // The plug-in's log so far; what a living host has not written out yet is missing.
    std::string log() const;
    // What makes a process one of this end.
    std::vector<std::string> environment() const;

    // `vcctl ARGUMENTS` as in a shell, its standard error joined to its standard output.
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

// Waits for a line of the process; a failure of the test, and all that came instead, when it does
// not come.
std::string lineStarting(support::Subprocess& process, const std::string& start);
std::string lineWith(support::Subprocess& process, const std::string& part);

// Makes a file of `size` bytes that repeat nowhere; the content.
std::string makeFile(const std::string& path, std::size_t size);

std::vector<pid_t> childrenOf(pid_t process);

}  // namespace testsupport
