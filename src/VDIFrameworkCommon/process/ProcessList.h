#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace VDIFrameworkCommon {

struct RunningProcess {
    pid_t pid;
    std::string executable;  // path, links resolved
};

// The living processes of the effective user.
std::vector<RunningProcess> ownProcesses();

// The path of the executable that the process runs now, links resolved; empty when it has ended or
// this user may not inspect it.
std::string executableOf(pid_t pid);

// The script that `interpreter` was started to run, links resolved; on Linux a script's executable
// is its interpreter. Empty when there is none, or when `isOfInterest` is false for its path: no
// other file named by others is touched.
std::string scriptOf(const RunningProcess& interpreter,
                     const std::function<bool(const std::string& path)>& isOfInterest);

}  // namespace VDIFrameworkCommon
