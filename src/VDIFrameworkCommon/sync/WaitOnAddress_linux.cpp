// By futex. The words are shared between processes, so the futexes are not private.
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <climits>
#include <ctime>

#include "WaitOnAddress.h"

namespace VDIFrameworkCommon {

namespace {

// A futex has 32 bits: the low half of the word.
static_assert(std::endian::native == std::endian::little);

const std::uint32_t* lowHalf(const WaitWord& word) {
    return reinterpret_cast<const std::uint32_t*>(&word);
}

timespec absolute(WaitClock::time_point time) {
    const auto sinceEpoch = time.time_since_epoch();
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(sinceEpoch);
    const auto rest = std::chrono::duration_cast<std::chrono::nanoseconds>(sinceEpoch - seconds);
    return {static_cast<time_t>(seconds.count()), static_cast<long>(rest.count())};
}

}  // namespace

// A wake-up looks for the page behind the word. The high half is not waited on by anyone.
bool isPresent(const WaitWord& word) {
    return syscall(SYS_futex, lowHalf(word) + 1, FUTEX_WAKE, 1, nullptr, nullptr, 0) >= 0 ||
           errno != EFAULT;
}

namespace wait_backend {

// Who was woken, or found the word changed, knows that it was there. FUTEX_WAIT_BITSET takes an
// absolute time, on the clock of WaitClock. Format: futex(2).
Waited systemWait(const WaitWord& word, std::uint64_t expected, WaitClock::time_point deadline) {
    const timespec until = absolute(deadline);
    const long result =
        syscall(SYS_futex, lowHalf(word), FUTEX_WAIT_BITSET, static_cast<std::uint32_t>(expected),
                &until, nullptr, FUTEX_BITSET_MATCH_ANY);
    if (result == 0 || errno == EAGAIN) return Waited::Present;
    const bool isKnown = errno == EINTR || errno == ETIMEDOUT || errno == EFAULT;
    return isKnown ? Waited::Unknown : Waited::Unsupported;
}

// From Linux 5.16 on. Format: futex2(2), linux/futex.h.
Waited systemWaitAny(std::span<const AddressWait> waits, WaitClock::time_point deadline) {
#ifdef SYS_futex_waitv
    std::array<futex_waitv, kMostAddresses> entries{};
    const std::size_t count = std::min(waits.size(), entries.size());
    for (std::size_t i = 0; i < count; ++i) {
        entries[i].val = static_cast<std::uint32_t>(waits[i].expected);
        entries[i].uaddr = reinterpret_cast<std::uintptr_t>(lowHalf(*waits[i].word));
        entries[i].flags = FUTEX_32;
    }
    const timespec until = absolute(deadline);
    const long result = syscall(SYS_futex_waitv, entries.data(), count, 0, &until, CLOCK_MONOTONIC);
    if (result >= 0 || errno == EAGAIN) return Waited::Present;
    return errno == ENOSYS || errno == EPERM ? Waited::Unsupported : Waited::Unknown;
#else
    static_cast<void>(waits);
    static_cast<void>(deadline);
    return Waited::Unsupported;
#endif
}

void systemWake(const WaitWord& word, bool all) {
    syscall(SYS_futex, lowHalf(word), FUTEX_WAKE, all ? INT_MAX : 1, nullptr, nullptr, 0);
}

}  // namespace wait_backend

}  // namespace VDIFrameworkCommon
