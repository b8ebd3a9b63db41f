// Processor time of this process and of a peer.
#pragma once

#include <sys/types.h>
#include <time.h>

#include <cstdint>

namespace bench {

inline std::uint64_t cpuNanosecondsOf(clockid_t clock) {
    timespec time{};
    if (clock_gettime(clock, &time) != 0) return 0;
    return static_cast<std::uint64_t>(time.tv_sec) * 1000000000u +
           static_cast<std::uint64_t>(time.tv_nsec);
}

// All threads, user and system, since the process started.
inline std::uint64_t ownCpuNanoseconds() { return cpuNanosecondsOf(CLOCK_PROCESS_CPUTIME_ID); }

// The same of a living process of the same user; 0 when there is none.
inline std::uint64_t cpuNanosecondsOfProcess(pid_t process) {
    clockid_t clock{};
    return clock_getcpuclockid(process, &clock) == 0 ? cpuNanosecondsOf(clock) : 0;
}

}  // namespace bench
