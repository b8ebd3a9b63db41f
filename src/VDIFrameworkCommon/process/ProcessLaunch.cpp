#include "ProcessLaunch.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <ctime>

namespace VDIFrameworkCommon {

namespace {

class SpawnSettings {
public:
    SpawnSettings() {
        posix_spawn_file_actions_init(&actions);
        posix_spawnattr_init(&attributes);
        for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
            posix_spawn_file_actions_addopen(&actions, fd, "/dev/null", O_RDWR, 0);
        }
        sigset_t all;
        sigset_t none;
        sigfillset(&all);
        sigemptyset(&none);
        posix_spawnattr_setsigdefault(&attributes, &all);
        posix_spawnattr_setsigmask(&attributes, &none);
        short flags = POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK;
        closeOtherDescriptors(actions, flags);
        posix_spawnattr_setflags(&attributes, flags);
    }
    ~SpawnSettings() {
        posix_spawnattr_destroy(&attributes);
        posix_spawn_file_actions_destroy(&actions);
    }
    SpawnSettings(const SpawnSettings&) = delete;
    SpawnSettings& operator=(const SpawnSettings&) = delete;

    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
};

// The host's signal handlers must not run in the forked copy of it.
class AllSignalsBlocked {
public:
    AllSignalsBlocked() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &m_before);
    }
    ~AllSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
    AllSignalsBlocked(const AllSignalsBlocked&) = delete;
    AllSignalsBlocked& operator=(const AllSignalsBlocked&) = delete;

private:
    sigset_t m_before{};
};

// A host that ignores or reaps its children takes the status away: then only the child's end is
// known, and success is assumed.
bool endedWell(pid_t child) {
    int status = 0;
    pid_t ended = 0;
    do {
        ended = waitpid(child, &status, 0);
    } while (ended < 0 && errno == EINTR);
    return ended < 0 || (WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

// In the forked copy of a process with threads: system calls only.
bool endsWellInTime(pid_t program) {
    constexpr timespec kStep{0, 10'000'000};
    constexpr int kSteps = 2000;
    int status = 0;
    for (int i = 0; i < kSteps; ++i) {
        if (waitpid(program, &status, WNOHANG) != 0)
            return WIFEXITED(status) && WEXITSTATUS(status) == 0;
        nanosleep(&kStep, nullptr);
    }
    return false;
}

enum class Success { Started, EndedWell };

// Via a child, so that the program is reaped by the system and not here. All memory is allocated
// before the fork; the child makes only the one system-level call that returns once the program has
// been loaded, or with an error, and waits.
bool launch(const std::string& path, const std::vector<std::string>& arguments, Success success) {
    if (access(path.c_str(), X_OK) != 0) return false;
    std::vector<std::string> texts{path};
    texts.insert(texts.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    argv.reserve(texts.size() + 1);
    for (auto& text : texts) argv.push_back(text.data());
    argv.push_back(nullptr);
    const SpawnSettings settings;
    char** const environment = environmentOfProcess();

    const AllSignalsBlocked blocked;
    const pid_t child = fork();
    if (child == 0) {
        pid_t program = 0;
        const int failed = posix_spawn(&program, path.c_str(), &settings.actions,
                                       &settings.attributes, argv.data(), environment);
        const bool well = failed == 0 && (success == Success::Started || endsWellInTime(program));
        _exit(well ? 0 : 1);
    }
    return child > 0 && endedWell(child);
}

}  // namespace

bool launchDetached(const std::string& path, const std::vector<std::string>& arguments) {
    return launch(path, arguments, Success::Started);
}

bool runDetached(const std::string& path, const std::vector<std::string>& arguments) {
    return launch(path, arguments, Success::EndedWell);
}

}  // namespace VDIFrameworkCommon
