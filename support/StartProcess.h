#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace support {

// Starts command[0], searched for in PATH, with the other words as its arguments, and with `input`
// and `output` as its standard input and output. `environment` ("NAME=value") is added to this
// process's environment, or replaces entries in it. The child starts with no signal blocked, and
// does not ignore SIGPIPE. Returns 0 or an errno value. Any thread.
int startProcess(pid_t* pid, int input, int output, std::vector<std::string> command,
                 const std::vector<std::string>& environment = {});

}  // namespace support
