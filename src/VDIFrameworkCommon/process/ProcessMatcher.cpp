#include "ProcessMatcher.h"

#include <sys/stat.h>

#include <algorithm>

#include "ApplicationBundle.h"

namespace VDIFrameworkCommon {

namespace {

std::string fileNameOf(std::string path) {
    while (path.ends_with('/')) path.pop_back();
    return path.substr(path.rfind('/') + 1);
}

}  // namespace

ProcessMatcher::ProcessMatcher(std::string name)
    : m_name(std::move(name)), m_isPath(m_name.find('/') != std::string::npos) {
    if (!m_isPath) return;
    const std::string path = installedPath(m_name);
    add(path);
    if (const auto bundle = readBundle(path); !bundle.executable.empty()) add(bundle.executable);
}

bool ProcessMatcher::matches(const RunningProcess& process) const {
    if (matches(process.executable)) return true;
    const std::string script =
        scriptOf(process, [&](const std::string& path) { return mayMatch(path); });
    return !script.empty() && matches(script);
}

bool ProcessMatcher::matches(const std::string& executable) const {
    const std::string bundle = bundlePathOf(executable);
    if (m_isPath) return isOneOfTheFiles(executable) || isOneOfTheFiles(bundle);
    if (m_name.empty()) return false;
    return fileNameOf(executable) == m_name ||
           (mayBeIdentifier() && !bundle.empty() && isBundleInReach(bundle) &&
            readBundle(bundle).identifier == m_name);
}

bool ProcessMatcher::mayMatch(const std::string& path) const {
    const std::string bundle = bundlePathOf(path);
    if (!m_isPath) {
        const bool isProgramOfBundle = path.starts_with(bundle + "/Contents/MacOS/");
        return fileNameOf(path) == m_name || (mayBeIdentifier() && isProgramOfBundle);
    }
    return m_fileNames.contains(fileNameOf(path)) || m_fileNames.contains(fileNameOf(bundle));
}

bool ProcessMatcher::mayBeIdentifier() const { return m_name.find('.') != std::string::npos; }

void ProcessMatcher::add(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) return;
    m_files.emplace_back(status.st_dev, status.st_ino);
    if (const auto name = fileNameOf(path); !name.empty()) m_fileNames.insert(name);
}

bool ProcessMatcher::isOneOfTheFiles(const std::string& path) const {
    struct stat status {};
    return !m_files.empty() && !path.empty() && stat(path.c_str(), &status) == 0 &&
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
