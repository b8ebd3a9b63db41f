// Sleeping on a word of shared memory until another process changes it.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <span>

namespace VDIFrameworkCommon {

// A word that only ever grows, by at most 2^32 between two looks of a waiter.
using WaitWord = std::atomic<std::uint64_t>;
static_assert(WaitWord::is_always_lock_free);

using WaitClock = std::chrono::steady_clock;

// Sleeps while `word` is `expected`, until `deadline` at the latest. May return spuriously: loop
// over the word and the clock. Checking the word and falling asleep are one step for a waker that
// changes the word first and wakes then. False when the word may be gone by now: test isPresent()
// before touching it.
bool waitOnAddress(const WaitWord& word, std::uint64_t expected, WaitClock::time_point deadline);

// Whether touching the word, of a shared mapping, does not kill this process because another one
// has truncated the object behind it. One system call.
bool isPresent(const WaitWord& word);

constexpr std::size_t kMostAddresses = 16;

struct AddressWait {
    const WaitWord* word = nullptr;
    std::uint64_t expected = 0;
};

// The same for up to kMostAddresses words at once: sleeps while each is as expected. Only where
// canWaitOnAnyAddress(); elsewhere it returns at once. False when one of them may be gone.
bool waitOnAnyAddress(std::span<const AddressWait> waits, WaitClock::time_point deadline);
// Whether the system can do that, and this process does not poll.
bool canWaitOnAnyAddress();

// Wakes one or all threads that sleep on `word`, in every process. Always costs a system call.
void wakeOne(const WaitWord& word);
void wakeAll(const WaitWord& word);

// How this process waits: by the system's facility, or by polling the word (the fallback on systems
// without one; the default when built with NORVO_POLLING_WAIT). Processes may differ: one that
// polls still wakes those that sleep. Returns the previous backend.
enum class WaitBackend { System, Polling };
WaitBackend setWaitBackend(WaitBackend backend);

// The backends themselves; everyone else calls the functions above.
namespace wait_backend {

// Like waitOnAddress. Unsupported: returned at once.
enum class Waited { Present, Unknown, Unsupported };
Waited systemWait(const WaitWord& word, std::uint64_t expected, WaitClock::time_point deadline);
void systemWake(const WaitWord& word, bool all);
// An empty span only asks whether the system supports it.
Waited systemWaitAny(std::span<const AddressWait> waits, WaitClock::time_point deadline);

// Spins and yields for a moment, then polls, sleeping for a sixteenth of the time that the thread
// has waited for this change, over several calls if need be: 50 us to 10 ms. False when the word
// is gone.
bool poll(const WaitWord& word, std::uint64_t expected, WaitClock::time_point deadline);

}  // namespace wait_backend

}  // namespace VDIFrameworkCommon
