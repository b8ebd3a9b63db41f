// Uses the system's wait on an address, available from macOS 14.4. It is looked up when first
// needed, so that neither the build nor older systems need it; before 14.4 waiting falls back to
// polling. Format: os/os_sync_wait_on_address.h.
#include <dlfcn.h>

#include <cerrno>

#include "WaitOnAddress.h"

namespace VDIFrameworkCommon {

// An object that has a size cannot be truncated here.
bool isPresent(const WaitWord&) { return true; }

namespace wait_backend {

namespace {

constexpr std::uint32_t kShared = 1;      // OS_SYNC_WAIT_ON_ADDRESS_SHARED, ..._WAKE_..._SHARED
constexpr std::uint32_t kClockMach = 32;  // OS_CLOCK_MACH_ABSOLUTE_TIME

using Wait = int (*)(void*, std::uint64_t value, std::size_t size, std::uint32_t flags,
                     std::uint32_t clock, std::uint64_t nanoseconds);
using Wake = int (*)(void*, std::size_t size, std::uint32_t flags);

struct Facility {
    Wait wait = nullptr;
    Wake wakeOne = nullptr;
    Wake wakeAll = nullptr;
};

template <class Function>
Function find(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_DEFAULT, name));
}

Facility findFacility() {
    const Facility found{find<Wait>("os_sync_wait_on_address_with_timeout"),
                         find<Wake>("os_sync_wake_by_address_any"),
                         find<Wake>("os_sync_wake_by_address_all")};
    return found.wait && found.wakeOne && found.wakeAll ? found : Facility{};
}

const Facility& facility() {
    static const Facility found = findFacility();
    return found;
}

void* address(const WaitWord& word) { return const_cast<WaitWord*>(&word); }

}  // namespace

Waited systemWait(const WaitWord& word, std::uint64_t expected, WaitClock::time_point deadline) {
    if (!facility().wait) return Waited::Unsupported;
    const auto left =
        std::chrono::duration_cast<std::chrono::nanoseconds>(deadline - WaitClock::now());
    if (left.count() <= 0) return Waited::Present;
    const int result = facility().wait(address(word), expected, sizeof word, kShared, kClockMach,
                                       static_cast<std::uint64_t>(left.count()));
    const bool isDone = result >= 0 || errno == ETIMEDOUT || errno == EINTR || errno == EFAULT;
    return isDone ? Waited::Present : Waited::Unsupported;
}

Waited systemWaitAny(std::span<const AddressWait> /*waits*/, WaitClock::time_point /*deadline*/) {
    return Waited::Unsupported;
}

void systemWake(const WaitWord& word, bool all) {
    const Wake wake = all ? facility().wakeAll : facility().wakeOne;
    if (wake) wake(address(word), sizeof word, kShared);
}

}  // namespace wait_backend

}  // namespace VDIFrameworkCommon
