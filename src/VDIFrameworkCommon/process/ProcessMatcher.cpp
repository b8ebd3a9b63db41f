#include "ProcessMatcher.h"

#include <sys/stat.h>

#include <algorithm>

#include "ApplicationBundle.h"

namespace VDIFrameworkCommon {

ProcessMatcher::ProcessMatcher(std::string name)
    : m_name(std::move(name)), m_isPath(m_name.find('/') != std::string::npos) {
    if (!m_isPath) return;
    const std::string path = installedPath(m_name);
    add(path);
    if (const auto bundle = readBundle(path); !bundle.executable.empty()) add(bundle.executable);
}

bool ProcessMatcher::matches(const RunningProcess& process) const {
    const std::string bundle = bundlePathOf(process.executable);
    if (m_isPath) {
        return isOneOfTheFiles(process.executable) || (!bundle.empty() && isOneOfTheFiles(bundle));
    }
    if (m_name.empty()) return false;
    if (process.executable.substr(process.executable.rfind('/') + 1) == m_name) return true;
    const bool mayBeIdentifier = m_name.find('.') != std::string::npos;
    return mayBeIdentifier && !bundle.empty() && isBundleInReach(bundle) &&
           readBundle(bundle).identifier == m_name;
}

void ProcessMatcher::add(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) == 0) m_files.emplace_back(status.st_dev, status.st_ino);
}

bool ProcessMatcher::isOneOfTheFiles(const std::string& path) const {
    struct stat status {};
    return !m_files.empty() && stat(path.c_str(), &status) == 0 &&
           std::find(m_files.begin(), m_files.end(), FileId(status.st_dev, status.st_ino)) !=
               m_files.end();
}

std::vector<RunningProcess> processesNamed(const std::string& name) {
    const ProcessMatcher matcher(name);
    std::vector<RunningProcess> processes = ownProcesses();
    std::erase_if(processes, [&](const auto& process) { return !matcher.matches(process); });
    return processes;
}

}  // namespace VDIFrameworkCommon
