#include "ProcessLife.h"

#include <sys/types.h>

#include <cerrno>
#include <csignal>

namespace NorvoStreamClient {

bool isProcessAlive(unsigned int processId) {
    const auto pid = static_cast<pid_t>(processId);
    return pid <= 0 || ::kill(pid, 0) == 0 || errno != ESRCH;
}

}  // namespace NorvoStreamClient
