#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace VDIFrameworkCommon {

struct RunningProcess {
    pid_t pid;
    std::string executable;  // path, without links
};

// The living processes of the effective user.
std::vector<RunningProcess> ownProcesses();

// The path of the executable that the process runs now, without links; empty when it has ended or
// is not this user's to look at.
std::string executableOf(pid_t pid);

// The script that the process of that interpreter was started as, without links: on Linux, where
// the system runs a script by its interpreter, which then is the executable. Empty when it is none,
// or none whose path `isOfInterest` says true of: of files that others name, no other is touched.
std::string scriptOf(const RunningProcess& interpreter,
                     const std::function<bool(const std::string& path)>& isOfInterest);

}  // namespace VDIFrameworkCommon
