#include <dirent.h>
#include <fcntl.h>
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

namespace VDIFrameworkCommon {

namespace {

constexpr std::string_view kDeleted = " (deleted)";

// The start of a file; empty when it cannot be read.
std::string startOf(const std::string& path) {
    std::array<char, 4096> bytes{};
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) return {};
    const ssize_t got = ::read(fd, bytes.data(), bytes.size());
    ::close(fd);
    return {bytes.data(), got > 0 ? static_cast<std::size_t>(got) : 0};
}

std::string executableOf(const std::string& process) {
    std::array<char, PATH_MAX> path{};
    const ssize_t length = readlink((process + "/exe").c_str(), path.data(), path.size());
    std::string text(path.data(), length > 0 ? static_cast<std::size_t>(length) : 0);
    if (text.ends_with(kDeleted)) text.resize(text.size() - kDeleted.size());
    return text;
}

std::string canonical(const std::string& path) {
    const std::unique_ptr<char, decltype(&std::free)> text(realpath(path.c_str(), nullptr),
                                                           &std::free);
    return text ? text.get() : std::string();
}

// Whether the first line of `script` names `interpreter`: then the system itself has put the
// script's path among the arguments. An argument that is merely a file's name does not pass.
bool isRunBy(const std::string& script, const std::string& interpreter) {
    const std::string start = startOf(script);
    if (!start.starts_with("#!")) return false;
    std::istringstream line(start.substr(2, start.find('\n') - 2));
    std::string named;
    std::string argument;
    line >> named >> argument;
    if (canonical(named) == interpreter) return true;
    const std::string file = interpreter.substr(interpreter.rfind('/') + 1);
    return named.ends_with("/env") && !argument.empty() && file.starts_with(argument);
}

// The script that the process of `interpreter` was started as, or `interpreter`.
std::string scriptOr(const std::string& interpreter, const std::string& process) {
    const std::string arguments = startOf(process + "/cmdline");
    std::size_t at = arguments.find('\0');
    for (int i = 0; i < 2 && at != std::string::npos && at + 1 < arguments.size(); ++i) {
        const std::string argument = arguments.c_str() + at + 1;
        if (argument.starts_with('/') && isRunBy(argument, interpreter)) return canonical(argument);
        at = arguments.find('\0', at + 1);
    }
    return interpreter;
}

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

std::vector<RunningProcess> ownProcesses() {
    std::vector<RunningProcess> found;
    const std::unique_ptr<DIR, CloseFolder> folder(opendir("/proc"));
    while (const dirent* entry = folder ? readdir(folder.get()) : nullptr) {
        const pid_t pid = toPid(entry->d_name);
        const std::string process = std::string("/proc/") + entry->d_name;
        struct stat status {};
        if (pid <= 0 || stat(process.c_str(), &status) != 0 || status.st_uid != geteuid()) continue;
        const std::string executable = executableOf(process);
        if (!executable.empty()) found.push_back({pid, scriptOr(executable, process)});
    }
    return found;
}

}  // namespace VDIFrameworkCommon
