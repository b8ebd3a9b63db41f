#pragma once

#include <sys/types.h>

#include <set>
#include <string>
#include <utility>
#include <vector>

#include "ProcessList.h"

namespace VDIFrameworkCommon {

// Decides which processes a name refers to, see ProcessUtils. Paths are compared as files, not as
// text; a path is resolved when the matcher is created.
class ProcessMatcher {
public:
    explicit ProcessMatcher(std::string name);
    bool matches(const RunningProcess& process) const;

private:
    using FileId = std::pair<dev_t, ino_t>;
    bool matches(const std::string& executable) const;
    // Judging by its path alone.
    bool mayMatch(const std::string& path) const;
    bool mayBeIdentifier() const;
    void add(const std::string& path);
    bool isOneOfTheFiles(const std::string& path) const;

    std::string m_name;
    bool m_isPath;
    std::vector<FileId> m_files;
    std::set<std::string> m_fileNames;
};

// The processes of the effective user that `name` refers to.
std::vector<RunningProcess> processesNamed(const std::string& name);

}  // namespace VDIFrameworkCommon
