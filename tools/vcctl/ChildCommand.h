#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "Descriptor.h"

namespace vcctl {

// A command, such as `ssh desk ...`, whose standard input and output are one socket. It ends with
// the object.
class ChildCommand {
public:
    // `command[0]` is searched for in PATH. Throws CommandError when it cannot be started.
    explicit ChildCommand(const std::vector<std::string>& command);
    // Closes its input; after two seconds asks it to end, then kills it.
    ~ChildCommand();
    ChildCommand(const ChildCommand&) = delete;
    ChildCommand& operator=(const ChildCommand&) = delete;

    // This end of its input and output, now owned by the caller. Closing it ends the child's input.
    support::Descriptor takeSocket() { return std::move(m_socket); }

    // Waits up to two seconds. Says how the command ended, or that it has not.
    std::string outcome();

private:
    bool hasEndedWithin(int milliseconds);

    pid_t m_pid = -1;
    int m_status = 0;
    support::Descriptor m_socket;
};

}  // namespace vcctl
