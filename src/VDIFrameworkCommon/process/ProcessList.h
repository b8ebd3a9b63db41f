#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace VDIFrameworkCommon {

struct RunningProcess {
    pid_t pid;
    std::string executable;  // path, without links
};

// The living processes of the effective user. On Linux, where a script is run by an interpreter,
// the executable is the script.
std::vector<RunningProcess> ownProcesses();

}  // namespace VDIFrameworkCommon
