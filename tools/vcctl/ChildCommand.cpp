#include "ChildCommand.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <thread>

#include "CommandError.h"
#include "StartProcess.h"

namespace vcctl {

using support::Descriptor;

namespace {

constexpr int kPatience = 2000;  // milliseconds

}  // namespace

ChildCommand::ChildCommand(const std::vector<std::string>& command) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0)
        throw systemError("cannot make a socket", errno);
    for (const int end : ends) fcntl(end, F_SETFD, FD_CLOEXEC);
    m_socket.reset(ends[0]);
    const Descriptor theirs(ends[1]);
    if (const int failed = support::startProcess(&m_pid, theirs.get(), theirs.get(), command))
        throw systemError("cannot start '" + command[0] + "'", failed);
}

ChildCommand::~ChildCommand() {
    m_socket.reset();
    for (const int number : {SIGTERM, SIGKILL}) {
        if (hasEndedWithin(kPatience)) return;
        kill(m_pid, number);
    }
    hasEndedWithin(kPatience);
}

std::string ChildCommand::outcome() {
    if (!hasEndedWithin(kPatience)) return "it still runs";
    if (WIFSIGNALED(m_status))
        return "it was ended by signal " + std::to_string(WTERMSIG(m_status));
    return "its exit status was " + std::to_string(WEXITSTATUS(m_status));
}

bool ChildCommand::hasEndedWithin(int milliseconds) {
    for (int waited = 0; m_pid > 0; ++waited) {
        if (waitpid(m_pid, &m_status, WNOHANG) != 0) {
            m_pid = -1;
        } else if (waited == milliseconds) {
            return false;
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    return true;
}

}  // namespace vcctl
