#pragma once

#include <string>
#include <vector>

namespace VDIFrameworkCommon {

// Starting, finding and ending programs. A name is an executable's file name, its path, the path of
// the application bundle that contains it, or that bundle's identifier. Only processes of the same
// user are seen. Thread-safe.
class ProcessUtils {
public:
    // Starts the program or application bundle at `path`, or the installed bundle with that
    // identifier, detached: no zombie, no inherited descriptor. False, after a log line, when it
    // could not be started.
    static bool createProcess(const std::string& path);

    // The same for an application bundle (a folder whose name ends in ".app") or a plain executable
    // at `location`, with `arguments` after the program's own name. A bundle that already runs is
    // not started again, even when several processes ask at once; returns true then, too.
    static bool createProcessAtURL(const std::string& location,
                                   const std::vector<std::string>& arguments);

    static bool isProcessRunning(const std::string& name);

    // Asks the processes of that name to end, and kills those that have not within a second. Never
    // the calling one. Returns when they have ended, within about two seconds.
    static void terminateProcess(const std::string& name);

    static unsigned int getCurrentProcessId();
    static unsigned int getParentProcessId();
};

}  // namespace VDIFrameworkCommon
