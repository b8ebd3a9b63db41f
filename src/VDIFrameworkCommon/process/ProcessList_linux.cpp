#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>

#include "ProcessList.h"
#include "RegularFile.h"

namespace VDIFrameworkCommon {

namespace {

constexpr std::string_view kDeleted = " (deleted)";
constexpr std::size_t kFirstLine = 4096;
constexpr std::size_t kFirstArguments = 3 * PATH_MAX;

std::string canonical(const std::string& path) {
    const std::unique_ptr<char, decltype(&std::free)> text(realpath(path.c_str(), nullptr),
                                                           &std::free);
    return text ? text.get() : std::string();
}

// Whether the first line of `script` names `interpreter`: then the system itself has put the
// script's path among the arguments. An argument that is merely a file's name does not pass.
bool isRunBy(const std::string& script, const std::string& interpreter) {
    const std::string start = startOfRegularFile(script, kFirstLine);
    if (!start.starts_with("#!")) return false;
    std::istringstream line(start.substr(2, start.find('\n') - 2));
    std::string named;
    std::string argument;
    line >> named >> argument;
    if (canonical(named) == interpreter) return true;
    const std::string file = interpreter.substr(interpreter.rfind('/') + 1);
    return named.ends_with("/env") && !argument.empty() && file.starts_with(argument);
}

std::string folderOf(pid_t pid) { return "/proc/" + std::to_string(pid); }

struct CloseFolder {
    void operator()(DIR* folder) const { closedir(folder); }
};

pid_t toPid(const char* name) {
    pid_t pid = 0;
    const char* const end = name + std::strlen(name);
    const auto result = std::from_chars(name, end, pid);
    return result.ec == std::errc() && result.ptr == end ? pid : 0;
}

}  // namespace

std::string executableOf(pid_t pid) {
    std::array<char, PATH_MAX> path{};
    const ssize_t length = readlink((folderOf(pid) + "/exe").c_str(), path.data(), path.size());
    std::string text(path.data(), length > 0 ? static_cast<std::size_t>(length) : 0);
    if (text.ends_with(kDeleted)) text.resize(text.size() - kDeleted.size());
    return text;
}

std::string scriptOf(const RunningProcess& interpreter,
                     const std::function<bool(const std::string& path)>& isOfInterest) {
    const std::string arguments =
        startOfRegularFile(folderOf(interpreter.pid) + "/cmdline", kFirstArguments);
    std::size_t at = arguments.find('\0');
    for (int i = 0; i < 2 && at != std::string::npos && at + 1 < arguments.size(); ++i) {
        const std::string argument = arguments.c_str() + at + 1;
        if (argument.starts_with('/') && isOfInterest(argument) &&
            isRunBy(argument, interpreter.executable)) {
            return canonical(argument);
        }
        at = arguments.find('\0', at + 1);
    }
    return {};
}

std::vector<RunningProcess> ownProcesses() {
    std::vector<RunningProcess> found;
    const std::unique_ptr<DIR, CloseFolder> folder(opendir("/proc"));
    while (const dirent* entry = folder ? readdir(folder.get()) : nullptr) {
        const pid_t pid = toPid(entry->d_name);
        struct stat status {};
        if (pid <= 0 || fstatat(dirfd(folder.get()), entry->d_name, &status, 0) != 0) continue;
        if (status.st_uid != geteuid()) continue;
        std::string executable = executableOf(pid);
        if (!executable.empty()) found.push_back({pid, std::move(executable)});
    }
    return found;
}

}  // namespace VDIFrameworkCommon
