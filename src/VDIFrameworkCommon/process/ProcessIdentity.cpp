#include "ProcessIdentity.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>

namespace VDIFrameworkCommon {

namespace {

using Word = ProcessIdentity::Word;
namespace system_specific = process_identity_system;

constexpr unsigned kTagShift = 44;
constexpr unsigned kStartShift = 24;
constexpr Word kFieldMask = 0xfffff;
// The highest that any of the systems can be set to.
constexpr pid_t kHighestPid = 1 << 22;

std::atomic<Word> g_own{0};

// 20 well mixed bits, never 0.
Word fold(std::uint64_t value) {
    value = (value ^ (value >> 31)) * 0x9e3779b97f4a7c15U;
    const Word folded = (value >> 40) & kFieldMask;
    return folded ? folded : 1;
}

bool startedAt(Word word, std::uint64_t startTime) {
    const Word start = (word >> kStartShift) & kFieldMask;
    return start == 0 || start == fold(startTime);
}

Word tagOf(Word word) { return word >> kTagShift; }

Word lookAtSelf() {
    static const int registered =
        pthread_atfork(nullptr, nullptr, [] { g_own.store(0, std::memory_order_relaxed); });
    static_cast<void>(registered);
    const pid_t pid = getpid();
    const Word own = ProcessIdentity::compose(system_specific::namespaceTag(),
                                              system_specific::look(pid).startTime, pid);
    g_own.store(own, std::memory_order_relaxed);
    return own;
}

}  // namespace

Word ProcessIdentity::own() {
    const Word own = g_own.load(std::memory_order_relaxed);
    return own ? own : lookAtSelf();
}

Word ProcessIdentity::of(pid_t pid) {
    const auto state = system_specific::look(pid);
    const bool lives = state.known && !state.ended;
    return lives ? compose(system_specific::namespaceTag(), state.startTime, pid) : 0;
}

Word ProcessIdentity::compose(std::uint64_t namespaceTag, std::uint64_t startTime, pid_t pid) {
    const Word start = startTime == 0 ? 0 : fold(startTime);
    return fold(namespaceTag) << kTagShift | start << kStartShift |
           (static_cast<Word>(pid) & (kUserBit - 1));
}

bool ProcessIdentity::isImpossible(Word word) {
    return tagOf(word) == 0 || pid(word) == 0 || pid(word) > kHighestPid;
}

bool ProcessIdentity::isComparable(Word word) { return tagOf(word) == tagOf(own()); }

bool ProcessIdentity::hasNoProcess(Word word) {
    if (isImpossible(word)) return true;
    if (!isComparable(word)) return false;
    return kill(pid(word), 0) != 0 && errno == ESRCH;
}

bool ProcessIdentity::isGone(Word word) {
    if (hasNoProcess(word)) return true;
    if (!isComparable(word)) return false;
    const auto state = system_specific::look(pid(word));
    if (!state.known) return hasNoProcess(word);  // a zombie may have been reaped meanwhile
    return state.ended || !startedAt(word, state.startTime);
}

}  // namespace VDIFrameworkCommon
