#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "Descriptor.h"

namespace vcctl {

// A command whose standard input and output are one socket, as `ssh desk ...` may be. It ends with
// the object.
class ChildCommand {
public:
    // `command[0]` is looked for as the shell does. Throws CommandError when it cannot be started.
    explicit ChildCommand(const std::vector<std::string>& command);
    // Closes its input, and after two seconds asks it to end, then forces it.
    ~ChildCommand();
    ChildCommand(const ChildCommand&) = delete;
    ChildCommand& operator=(const ChildCommand&) = delete;

    // This end of its input and output, for the caller to keep: without it, it reads the end.
    support::Descriptor takeSocket() { return std::move(m_socket); }

    // Waits up to two seconds: how it has ended, or that it has not.
    std::string outcome();

private:
    bool hasEndedWithin(int milliseconds);

    pid_t m_pid = -1;
    int m_status = 0;
    support::Descriptor m_socket;
};

}  // namespace vcctl
