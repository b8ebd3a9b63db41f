#include <libproc.h>
#include <sys/proc_info.h>

#include <cerrno>

#include "ProcessIdentity.h"

namespace VDIFrameworkCommon::process_identity_system {

ProcessState look(pid_t pid) {
    proc_bsdinfo info{};
    ProcessState result;
    errno = 0;
    const int size = proc_pidinfo(pid, PROC_PIDTBSDINFO, 0, &info, sizeof info);
    if (size == static_cast<int>(sizeof info)) {
        result.known = true;
        result.startTime = info.pbi_start_tvsec * 1000000U + info.pbi_start_tvusec;
        return result;
    }
    // A zombie is not found, and a process of another user may not be inspected: neither can own
    // anything of this user.
    result.ended = errno == ESRCH || errno == EPERM;
    result.known = result.ended;
    return result;
}

std::uint64_t namespaceTag() { return 0; }

}  // namespace VDIFrameworkCommon::process_identity_system
