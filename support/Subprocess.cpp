#include "Subprocess.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>
#include <utility>

#include "StartProcess.h"

namespace support {

namespace {

struct RunningChildren {
    std::mutex mutex;
    std::set<pid_t> pids;
};

RunningChildren& runningChildren() {
    static RunningChildren all;
    return all;
}

// Forgets the child in the same step, so that endAll() never signals a reused process ID.
pid_t reap(pid_t pid, int* status) {
    auto& running = runningChildren();
    std::lock_guard lock(running.mutex);
    const pid_t done = waitpid(pid, status, WNOHANG);
    if (done != 0) running.pids.erase(pid);
    return done;
}

struct Pipe {
    Descriptor out;  // to read from
    Descriptor in;
};

// Both ends are close-on-exec: a child must not keep another child's pipe open.
Pipe openPipe() {
    int ends[2];
    if (pipe(ends) != 0) throw std::runtime_error("pipe failed");
    for (const int end : ends) fcntl(end, F_SETFD, FD_CLOEXEC);
    return {Descriptor(ends[0]), Descriptor(ends[1])};
}

}  // namespace

Subprocess::Subprocess(const std::vector<std::string>& argv,
                       const std::vector<std::string>& environment) {
    Pipe input = openPipe();
    Pipe output = openPipe();
    {
        auto& running = runningChildren();
        std::lock_guard lock(running.mutex);
        if (startProcess(&m_pid, input.out.get(), output.in.get(), argv, environment) != 0)
            throw std::runtime_error("cannot start " + argv[0]);
        running.pids.insert(m_pid);
    }
    m_input = std::move(input.in);
    m_output = std::move(output.out);
}

Subprocess::Subprocess(Subprocess&& other) noexcept
    : m_pid(std::exchange(other.m_pid, -1)),
      m_input(std::move(other.m_input)),
      m_output(std::move(other.m_output)),
      m_status(other.m_status),
      m_reaped(other.m_reaped),
      m_ended(other.m_ended),
      m_pending(std::move(other.m_pending)) {}

Subprocess::~Subprocess() {
    if (m_pid > 0 && !m_reaped) {
        kill();
        wait();
    }
}

bool Subprocess::readMore(std::chrono::steady_clock::time_point deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    pollfd waited{m_output.get(), POLLIN, 0};
    if (left.count() <= 0 || poll(&waited, 1, static_cast<int>(left.count())) <= 0) return false;
    char bytes[4096];
    const ssize_t got = read(m_output.get(), bytes, sizeof bytes);
    if (got > 0) m_pending.append(bytes, static_cast<size_t>(got));
    m_ended = got <= 0;
    return !m_ended;
}

std::string Subprocess::readLine(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (const auto end = m_pending.find('\n'); end != std::string::npos) {
            std::string line = m_pending.substr(0, end);
            m_pending.erase(0, end + 1);
            return line;
        }
        if (!readMore(deadline)) return m_ended ? std::exchange(m_pending, {}) : std::string();
    }
}

std::string Subprocess::readAll(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (readMore(deadline)) {
    }
    return std::exchange(m_pending, {});
}

void Subprocess::writeLine(const std::string& line) {
    const std::string text = line + '\n';
    if (write(m_input.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        throw std::runtime_error("cannot write to the child");
    }
}

void Subprocess::closeInput() { m_input.reset(); }

void Subprocess::signal(int number) const {
    if (m_pid > 0 && !m_reaped) ::kill(m_pid, number);
}

void Subprocess::kill() const { signal(SIGKILL); }

void Subprocess::endAll() {
    auto& running = runningChildren();
    std::lock_guard lock(running.mutex);
    for (const pid_t pid : running.pids) ::kill(pid, SIGKILL);
    for (const pid_t pid : running.pids) waitpid(pid, nullptr, 0);
    running.pids.clear();
}

int Subprocess::wait(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!m_reaped) {
        int status = 0;
        const pid_t done = reap(m_pid, &status);
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

}  // namespace support
