#include "ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <map>
#include <stdexcept>
#include <thread>
#include <utility>

extern char** environ;

namespace testsupport {

namespace {

constexpr char kRoleFlag[] = "--child-role";

std::map<std::string, ChildMain>& roles() {
    static std::map<std::string, ChildMain> all;
    return all;
}

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    for (auto& text : texts) pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

std::string ownPath() {
    char path[4096];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
    if (length <= 0) throw std::runtime_error("cannot find the test program");
    return {path, static_cast<size_t>(length)};
}

}  // namespace

ChildRole::ChildRole(const char* name, ChildMain main) { roles()[name] = main; }

int runChildRole(int argc, char** argv) {
    if (argc < 3 || std::strcmp(argv[1], kRoleFlag) != 0) return -1;
    const auto role = roles().find(argv[2]);
    if (role == roles().end()) return 127;
    return role->second(std::vector<std::string>(argv + 3, argv + argc));
}

ChildProcess::ChildProcess(const std::string& role, const std::vector<std::string>& args,
                           const std::vector<std::string>& environment) {
    int in[2];
    int out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe failed");
    }
    std::vector<std::string> argv{ownPath(), kRoleFlag, role};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<std::string> env;
    for (char** entry = environ; *entry; ++entry) env.emplace_back(*entry);
    env.insert(env.begin(), environment.begin(), environment.end());

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    const int failed = posix_spawn(&m_pid, argv[0].c_str(), &actions, nullptr,
                                   pointersTo(argv).data(), pointersTo(env).data());
    posix_spawn_file_actions_destroy(&actions);
    close(in[0]);
    close(out[1]);
    m_input = in[1];
    m_output = out[0];
    if (failed) throw std::runtime_error("cannot start a child process");
}

ChildProcess::ChildProcess(ChildProcess&& other) noexcept
    : m_pid(std::exchange(other.m_pid, -1)),
      m_input(std::exchange(other.m_input, -1)),
      m_output(std::exchange(other.m_output, -1)),
      m_status(other.m_status),
      m_reaped(other.m_reaped),
      m_pending(std::move(other.m_pending)) {}

ChildProcess::~ChildProcess() {
    if (m_pid > 0 && !m_reaped) {
        kill();
        wait();
    }
    closeInput();
    if (m_output >= 0) close(m_output);
}

std::string ChildProcess::readLine(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (const auto end = m_pending.find('\n'); end != std::string::npos) {
            std::string line = m_pending.substr(0, end);
            m_pending.erase(0, end + 1);
            return line;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd waited{m_output, POLLIN, 0};
        if (left.count() <= 0 || poll(&waited, 1, static_cast<int>(left.count())) <= 0) return {};
        char bytes[4096];
        const ssize_t got = read(m_output, bytes, sizeof bytes);
        if (got <= 0) return std::exchange(m_pending, {});
        m_pending.append(bytes, static_cast<size_t>(got));
    }
}

void ChildProcess::writeLine(const std::string& line) {
    const std::string text = line + '\n';
    if (write(m_input, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        throw std::runtime_error("cannot write to the child");
    }
}

void ChildProcess::closeInput() {
    if (m_input >= 0) close(std::exchange(m_input, -1));
}

void ChildProcess::signal(int number) const {
    if (m_pid > 0 && !m_reaped) ::kill(m_pid, number);
}

void ChildProcess::kill() const { signal(SIGKILL); }

int ChildProcess::wait(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!m_reaped) {
        int status = 0;
        const pid_t done = waitpid(m_pid, &status, WNOHANG);
        if (done == m_pid) {
            m_reaped = true;
            m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        } else if (done < 0 || std::chrono::steady_clock::now() >= deadline) {
            return -1;
        } else {
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    }
    return m_status;
}

}  // namespace testsupport
