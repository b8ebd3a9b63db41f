#include "ProcessWatch.h"

#include "ProcessMatcher.h"

namespace VDIFrameworkCommon {

bool ProcessWatch::isRunning(const std::string& name) {
    if (m_process != 0 && name == m_name && stillRuns()) return true;
    m_name = name;
    m_process = 0;
    const auto found = processesNamed(name);
    for (const auto& process : found) {
        m_executable = process.executable;
        m_process = ProcessIdentity::of(process.pid);
        if (m_process != 0 && stillRuns()) return true;
    }
    m_process = 0;
    return !found.empty();
}

bool ProcessWatch::stillRuns() const {
    return executableOf(ProcessIdentity::pid(m_process)) == m_executable &&
           !ProcessIdentity::isGone(m_process);
}

}  // namespace VDIFrameworkCommon
