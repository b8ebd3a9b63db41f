// A process as one 64-bit word for shared memory, from which others can tell whether it still
// lives, even after its process ID was reused.
#pragma once

#include <sys/types.h>

#include <cstdint>

namespace VDIFrameworkCommon {

class ProcessIdentity {
public:
    // Bits 63..44 tag of the process-ID and time namespaces, 43..24 hash of the start time (0 when
    // unknown: matches any start time), 23 free for the user of the word (the functions below
    // ignore it), 22..0 process ID. 0 is nobody.
    using Word = std::uint64_t;
    static constexpr Word kUserBit = Word{1} << 23;

    // The calling process. No system call after the first call in a process; correct in a forked
    // child.
    static Word own();

    // The process that has this ID now; 0 when there is none, or nothing is known about it.
    static Word of(pid_t pid);

    static pid_t pid(Word word) { return static_cast<pid_t>(word & (kUserBit - 1)); }

    // Whether that process has ended: it does not exist, it is a zombie, or its ID was reused. Also
    // true for an invalid word. False when in doubt, and always for a process of another namespace,
    // about which nothing can be known. About 6 us.
    static bool isGone(Word word);

    // Whether the word is invalid: not made by own(), or overwritten.
    static bool isImpossible(Word word);

    // Whether isGone() and hasNoProcess() can judge it: it belongs to this process's own
    // namespaces.
    static bool isComparable(Word word);

    // A cheaper check, under 1 us, that takes a zombie or a reused ID for the process itself.
    static bool hasNoProcess(Word word);

    // The word of a process with these properties (start time 0: unknown).
    static Word compose(std::uint64_t namespaceTag, std::uint64_t startTime, pid_t pid);
};

// The parts that differ between systems.
namespace process_identity_system {

struct ProcessState {
    bool known = false;  // false: the system tells nothing about it
    bool ended = false;  // a zombie with no thread left, or certainly not a process of this user
    std::uint64_t startTime = 0;
};

ProcessState look(pid_t pid);

// The same value in all processes whose process IDs and start times can be compared.
std::uint64_t namespaceTag();

}  // namespace process_identity_system

}  // namespace VDIFrameworkCommon
