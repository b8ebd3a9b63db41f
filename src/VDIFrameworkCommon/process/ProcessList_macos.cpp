#include <libproc.h>
#include <sys/proc_info.h>
#include <unistd.h>

#include <array>

#include "ProcessList.h"

namespace VDIFrameworkCommon {

namespace {

std::vector<pid_t> allProcessIds() {
    constexpr std::size_t kSlack = 64;  // started between the two calls
    const int expected = proc_listallpids(nullptr, 0);
    if (expected <= 0) return {};
    std::vector<pid_t> pids(static_cast<std::size_t>(expected) + kSlack);
    const int found = proc_listallpids(pids.data(), static_cast<int>(pids.size() * sizeof(pid_t)));
    pids.resize(found > 0 ? static_cast<std::size_t>(found) : 0);
    return pids;
}

bool isOwn(pid_t pid) {
    proc_bsdshortinfo info{};
    const int size = proc_pidinfo(pid, PROC_PIDT_SHORTBSDINFO, 0, &info, sizeof info);
    return size == static_cast<int>(sizeof info) && info.pbsi_uid == geteuid();
}

}  // namespace

std::string executableOf(pid_t pid) {
    std::array<char, PROC_PIDPATHINFO_MAXSIZE> path{};
    const int length = proc_pidpath(pid, path.data(), static_cast<std::uint32_t>(path.size()));
    return {path.data(), length > 0 ? static_cast<std::size_t>(length) : 0};
}

// Applications are not scripts here.
std::string scriptOf(const RunningProcess&, const std::function<bool(const std::string&)>&) {
    return {};
}

std::vector<RunningProcess> ownProcesses() {
    std::vector<RunningProcess> found;
    for (const pid_t pid : allProcessIds()) {
        if (pid <= 0 || !isOwn(pid)) continue;
        std::string executable = executableOf(pid);
        if (!executable.empty()) found.push_back({pid, std::move(executable)});
    }
    return found;
}

}  // namespace VDIFrameworkCommon
