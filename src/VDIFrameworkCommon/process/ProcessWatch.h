#pragma once

#include <string>

#include "ProcessIdentity.h"

namespace VDIFrameworkCommon {

// Whether a program runs, for repeated polling: remembers the process found, and searches all
// processes only when it has gone or has become another program. Not thread-safe.
class ProcessWatch {
public:
    // The same answer as ProcessUtils::isProcessRunning(name).
    bool isRunning(const std::string& name);
    // Whether it was running when last asked.
    bool hasFound() const { return m_process != 0; }

private:
    bool stillRuns() const;

    std::string m_name;
    std::string m_executable;
    ProcessIdentity::Word m_process = 0;
};

}  // namespace VDIFrameworkCommon
