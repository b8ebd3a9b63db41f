#pragma once

#include <string>
#include <vector>

namespace VDIFrameworkCommon {

// Starting, finding and ending programs. A name is an executable's file name, its path, or the
// identifier of the application bundle that the executable lies in.
class ProcessUtils {
public:
    // Starts the program or application bundle at `path` (or with that bundle identifier, where the
    // system can resolve it), detached: no zombie, no inherited descriptor. False when it could not
    // be started.
    static bool createProcess(const std::string& path);

    // The same for an application bundle (a folder whose name ends in ".app") or a plain executable
    // at `location`, with `arguments` after the program's own name.
    static bool createProcessAtURL(const std::string& location,
                                   const std::vector<std::string>& arguments);

    static bool isProcessRunning(const std::string& name);

    // Asks the processes of that name to end, and ends by force those that have not within a
    // second. Only processes of the same user, never the calling one.
    static void terminateProcess(const std::string& name);

    static unsigned int getCurrentProcessId();
    static unsigned int getParentProcessId();
};

}  // namespace VDIFrameworkCommon
