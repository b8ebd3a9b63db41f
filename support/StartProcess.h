#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace support {

// Starts command[0], which is looked for as a shell does, with the other words as its arguments,
// and `input` and `output` as its standard ones. `environment` adds to ("NAME=value"), or replaces
// in, this process's environment. The child starts with no signal blocked, and does not ignore
// SIGPIPE. Returns 0, or why it was not started as an errno value. Any thread.
int startProcess(pid_t* pid, int input, int output, std::vector<std::string> command,
                 const std::vector<std::string>& environment = {});

}  // namespace support
