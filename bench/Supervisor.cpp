#include "Supervisor.h"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <vector>

namespace bench {

namespace {

constexpr char kRunVariable[] = "NORVO_BENCH_RUN";  // the ID of the process that does the run

void clearUp() {
    static const std::regex owned("nvb([0-9]+)[-.]");
    const auto isLeft = [](const std::filesystem::path& path) {
        const std::string name = path.filename();
        std::smatch match;
        if (!std::regex_search(name, match, owned)) return false;
        const pid_t process = std::stoi(match[1]);
        return process == getpid() || (kill(process, 0) != 0 && errno == ESRCH);
    };
    std::error_code ignored;
    std::vector<std::filesystem::path> left;
    for (const std::filesystem::path folder : {"/dev/shm", "/tmp"}) {
        for (const auto& entry : std::filesystem::directory_iterator(folder, ignored)) {
            if (isLeft(entry.path())) left.push_back(entry.path());
        }
    }
    for (const auto& path : left) std::filesystem::remove_all(path, ignored);
}

// The child's own children become ours when it has ended.
void endAllChildren() {
    const std::string list = "/proc/self/task/" + std::to_string(getpid()) + "/children";
    do {
        std::ifstream children(list);
        for (pid_t child = 0; children >> child;) kill(child, SIGKILL);
    } while (waitpid(-1, nullptr, 0) > 0);
}

int resultOf(int status) {
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// False if the parent had already ended: then no signal will come.
bool endWith(pid_t parent) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    return getppid() == parent;
}

// Passes a signal on. A second signal, or a child that does not end, ends the wait.
int stop(pid_t child, int number, const sigset_t& signals) {
    constexpr timespec kPatience{5, 0};
    kill(child, number);
    while (sigtimedwait(&signals, nullptr, &kPatience) == SIGCHLD) {
        if (waitpid(child, nullptr, WNOHANG) == child) break;
    }
    return 128 + number;
}

// The result of the child, or 128 + the number of the signal that came first.
int waitFor(pid_t child, const sigset_t& signals) {
    for (;;) {
        int number = 0;
        sigwait(&signals, &number);
        if (number != SIGCHLD) return stop(child, number, signals);
        int status = 0;
        if (waitpid(child, &status, WNOHANG) == child) return resultOf(status);
    }
}

// Runs in the child, whose signals are blocked on every thread.
void watchSignals(const std::function<void()>& stopped) {
    std::thread([stopped] {
        sigset_t signals;
        sigemptyset(&signals);
        for (const int each : {SIGINT, SIGTERM}) sigaddset(&signals, each);
        int number = 0;
        sigwait(&signals, &number);
        stopped();
        _exit(128 + number);
    }).detach();
}

}  // namespace

int superviseRun(const std::function<int()>& run, const std::function<void()>& stopped) {
    clearUp();
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    sigset_t signals;
    sigemptyset(&signals);
    for (const int each : {SIGINT, SIGTERM, SIGCHLD}) sigaddset(&signals, each);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    const pid_t self = getpid();
    const pid_t child = fork();
    if (child < 0) throw std::system_error(errno, std::generic_category(), "fork");
    if (child == 0) {
        if (!endWith(self)) _exit(1);
        setpgid(0, 0);  // the terminal's signals reach the measured processes only via the parent
        watchSignals(stopped);
        setenv(kRunVariable, std::to_string(getpid()).c_str(), 1);
        std::exit(run());
    }
    const int result = waitFor(child, signals);
    endAllChildren();
    clearUp();
    if (result > 128) {
        if (isatty(STDERR_FILENO)) std::fputs("\r\033[K", stderr);
        std::fputs("norvo_bench: stopped\n", stderr);
    }
    return result;
}

bool endWithTheRun() {
    const char* run = std::getenv(kRunVariable);
    return run && endWith(std::stoi(run));
}

}  // namespace bench
