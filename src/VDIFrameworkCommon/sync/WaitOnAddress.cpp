#include "WaitOnAddress.h"

namespace VDIFrameworkCommon {

namespace {

#ifdef NORVO_POLLING_WAIT
std::atomic<WaitBackend> g_backend{WaitBackend::Polling};
#else
std::atomic<WaitBackend> g_backend{WaitBackend::System};
#endif

}  // namespace

bool waitOnAddress(const WaitWord& word, std::uint64_t expected, WaitClock::time_point deadline) {
    using wait_backend::Waited;
    const bool polling = g_backend.load(std::memory_order_relaxed) == WaitBackend::Polling;
    const Waited waited =
        polling ? Waited::Unsupported : wait_backend::systemWait(word, expected, deadline);
    return waited == Waited::Unsupported ? wait_backend::poll(word, expected, deadline)
                                         : waited == Waited::Present;
}

bool waitOnAnyAddress(std::span<const AddressWait> waits, WaitClock::time_point deadline) {
    return wait_backend::systemWaitAny(waits, deadline) == wait_backend::Waited::Present;
}

bool canWaitOnAnyAddress() {
    static const bool isSupported =
        wait_backend::systemWaitAny({}, {}) != wait_backend::Waited::Unsupported;
    return isSupported && g_backend.load(std::memory_order_relaxed) == WaitBackend::System;
}

void wakeOne(const WaitWord& word) { wait_backend::systemWake(word, false); }

void wakeAll(const WaitWord& word) { wait_backend::systemWake(word, true); }

WaitBackend setWaitBackend(WaitBackend backend) { return g_backend.exchange(backend); }

}  // namespace VDIFrameworkCommon
