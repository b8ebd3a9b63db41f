// Sleeping on a word of shared memory until another process changes it.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

namespace VDIFrameworkCommon {

// A word that only ever grows, by at most 2^32 between two looks of a waiter.
using WaitWord = std::atomic<std::uint64_t>;
static_assert(WaitWord::is_always_lock_free);

using WaitClock = std::chrono::steady_clock;

// Sleeps while `word` is `expected`, at the latest until `deadline`. May return early for no
// reason: loop over the word and the clock. The check of the word and the falling asleep are one
// step towards a waker that changes the word first and wakes then.
void waitOnAddress(const WaitWord& word, std::uint64_t expected, WaitClock::time_point deadline);

// Wakes one or all who sleep on `word`, in every process. Costs a system call, needed or not.
void wakeOne(const WaitWord& word);
void wakeAll(const WaitWord& word);

// How this process waits: by the system's facility, or by looking at the word now and then
// (the fallback of systems without one; the default when built with NORVO_POLLING_WAIT). Processes
// may differ in it: one that polls still wakes those that sleep. Returns the one before.
enum class WaitBackend { System, Polling };
WaitBackend setWaitBackend(WaitBackend backend);

// The backends themselves; everyone else calls the functions above.
namespace wait_backend {

// Like waitOnAddress. False when the system cannot do it, and then at once.
bool systemWait(const WaitWord& word, std::uint64_t expected, WaitClock::time_point deadline);
void systemWake(const WaitWord& word, bool all);

// Spins and yields for a moment, then sleeps between two looks for a sixteenth of the time that the
// thread has waited for this change, over several calls if need be: 50 us to 10 ms.
void poll(const WaitWord& word, std::uint64_t expected, WaitClock::time_point deadline);

}  // namespace wait_backend

}  // namespace VDIFrameworkCommon
