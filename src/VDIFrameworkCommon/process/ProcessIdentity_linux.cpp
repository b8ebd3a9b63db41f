#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "FileDescriptor.h"
#include "ProcessIdentity.h"

namespace VDIFrameworkCommon::process_identity_system {

namespace {

// Fields of the status line, counted from the one after the program's name. Format: proc(5).
constexpr int kState = 0;
constexpr int kThreads = 17;
constexpr int kStartTime = 19;

bool readStatus(pid_t pid, char* text, std::size_t size) {
    char path[64];
    // Emulators fake the status of a whole process, but not that of its first thread.
    std::snprintf(path, sizeof path, "/proc/%d/task/%d/stat", pid, pid);
    const FileDescriptor file(open(path, O_RDONLY | O_CLOEXEC));
    const ssize_t length = file ? read(file.get(), text, size - 1) : 0;
    if (length <= 0) return false;
    text[length] = '\0';
    return true;
}

const char* skipFields(const char* text, int count) {
    while (text && count-- > 0) {
        text = std::strchr(text, ' ');
        if (text) ++text;
    }
    return text;
}

std::uint64_t numberOfLink(const char* path) {
    char target[64];
    const ssize_t length = readlink(path, target, sizeof target - 1);
    if (length <= 0) return 0;
    target[length] = '\0';
    const char* number = std::strchr(target, '[');
    return number ? std::strtoull(number + 1, nullptr, 10) : 0;
}

}  // namespace

ProcessState look(pid_t pid) {
    char text[1024];
    if (!readStatus(pid, text, sizeof text)) return {};
    // The program's name is in parentheses and may contain any character.
    const char* end = std::strrchr(text, ')');
    const char* fields = end && end[1] == ' ' ? end + 2 : nullptr;
    const char* threads = skipFields(fields, kThreads);
    const char* start = skipFields(fields, kStartTime);
    if (!threads || !start) return {};
    const char state = fields[kState];
    ProcessState result;
    result.known = true;
    // A first thread that has exited is shown as a zombie while other threads run on.
    result.ended = (state == 'Z' || state == 'X') && std::strtol(threads, nullptr, 10) <= 1;
    result.startTime = std::strtoull(start, nullptr, 10);
    return result;
}

// Via the thread: the process's own links are gone once its first thread has exited.
std::uint64_t namespaceTag() {
    return numberOfLink("/proc/thread-self/ns/pid") * 31 +
           numberOfLink("/proc/thread-self/ns/time");
}

}  // namespace VDIFrameworkCommon::process_identity_system
