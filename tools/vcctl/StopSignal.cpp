#include "StopSignal.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>

#include "CommandError.h"

namespace vcctl {

namespace {

std::atomic<int> g_signals{0};
std::atomic<bool> g_hangUpStops{true};
std::atomic<bool> g_hungUp{false};
int g_pipe[2] = {-1, -1};

static_assert(std::atomic<int>::is_always_lock_free,
              "the handler may only touch lock-free atomics");

extern "C" void onSignal(int number) {
    const int savedError = errno;
    if (number == SIGHUP && !g_hangUpStops.load()) {
        g_hungUp.store(true);
    } else if (g_signals.fetch_add(1) >= 2) {
        _exit(130);
    }
    const char byte = 's';
    [[maybe_unused]] const ssize_t written = write(g_pipe[1], &byte, 1);
    errno = savedError;
}

}  // namespace

void StopSignal::install() {
    if (pipe(g_pipe) != 0) return;
    for (const int end : g_pipe) {
        fcntl(end, F_SETFD, FD_CLOEXEC);
        fcntl(end, F_SETFL, O_NONBLOCK);
    }
    struct sigaction action {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    struct sigaction before {};
    sigaction(SIGHUP, &action, &before);
    if (before.sa_handler == SIG_IGN) keepOnHangUp();  // as set by nohup
    action.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &action, nullptr);
}

void StopSignal::release() {
    for (const int number : {SIGINT, SIGTERM}) std::signal(number, SIG_DFL);
    std::signal(SIGHUP, g_hangUpStops ? SIG_DFL : SIG_IGN);
}

bool StopSignal::requested() { return g_signals.load(std::memory_order_relaxed) > 0; }

void StopSignal::keepOnHangUp() { g_hangUpStops.store(false); }

void StopSignal::throwIfRequested() {
    if (requested()) throw CommandError("interrupted", kInterrupted);
}

bool StopSignal::takeHangUp() { return g_hungUp.exchange(false); }

void StopSignal::drain() {
    char bytes[16];
    while (read(g_pipe[0], bytes, sizeof bytes) > 0) {
    }
}

int StopSignal::descriptor() { return g_pipe[0]; }

bool StopSignal::wait(int milliseconds) {
    if (requested()) return true;  // its byte may have been drained
    pollfd waited{g_pipe[0], POLLIN, 0};
    if (poll(&waited, 1, milliseconds) > 0) drain();
    return requested();
}

StopWithInput::StopWithInput() {
    if (pipe(m_end) != 0) return;
    for (const int end : m_end) fcntl(end, F_SETFD, FD_CLOEXEC);
    m_watch = std::thread([this] {
        pollfd waited[2] = {{STDIN_FILENO, 0, 0}, {m_end[0], 0, 0}};
        while (poll(waited, 2, -1) < 0 && errno == EINTR) {
        }
        if (waited[0].revents != 0 && waited[1].revents == 0) kill(getpid(), SIGTERM);
    });
}

StopWithInput::~StopWithInput() {
    if (!m_watch.joinable()) return;
    close(m_end[1]);
    m_watch.join();
    close(m_end[0]);
}

}  // namespace vcctl
