#include "OpenFileLimit.h"

#include <sys/resource.h>

long setOpenFileLimit(pid_t process, long limit) {
    rlimit before{};
    if (prlimit(process, RLIMIT_NOFILE, nullptr, &before) != 0) return -1;
    const rlimit wanted{static_cast<rlim_t>(limit), before.rlim_max};
    if (prlimit(process, RLIMIT_NOFILE, &wanted, nullptr) != 0) return -1;
    return static_cast<long>(before.rlim_cur);
}
