// A process as one 64-bit word that can stand in memory shared with others, so that they can tell
// whether it still lives, also after its process ID has been given to another.
#pragma once

#include <sys/types.h>

#include <cstdint>

namespace VDIFrameworkCommon {

class ProcessIdentity {
public:
    // Bits 63..44 tag of the process-ID and time namespaces, 43..24 hash of the start time (0 when
    // the process could not find it out: any start time is its own then), 23 free for the user of
    // the word (the functions below ignore it), 22..0 process ID. 0 is nobody.
    using Word = std::uint64_t;
    static constexpr Word kUserBit = Word{1} << 23;

    // The calling process. No system call after the first in a process; right in a forked child.
    static Word own();

    // The process that has this ID now; 0 when there is none, or nothing is known of it.
    static Word of(pid_t pid);

    static pid_t pid(Word word) { return static_cast<pid_t>(word & (kUserBit - 1)); }

    // Whether that process has ended: it is not there, it is a zombie, or its ID belongs to a later
    // one; or no process can have that word. False in doubt, and always for a process of another
    // namespace, of which nothing can be known. About 6 us.
    static bool isGone(Word word);

    // No process can have this word: it is not one that own() made, or has been written over.
    static bool isImpossible(Word word);

    // Whether the two functions here can judge it: it is of this process's own namespaces.
    static bool isComparable(Word word);

    // A cheaper look, under 1 us, that takes a zombie and a reused ID for the process itself.
    static bool hasNoProcess(Word word);

    // The word of a process with these properties (the low bits of each count; start time 0: not
    // known).
    static Word compose(std::uint64_t namespaceTag, std::uint64_t startTime, pid_t pid);
};

// The parts that differ between systems.
namespace process_identity_system {

struct ProcessState {
    bool known = false;  // false: the system tells nothing about that process
    bool ended = false;  // a zombie with no thread left, or certainly not a process of this user
    std::uint64_t startTime = 0;
};

ProcessState look(pid_t pid);

// The same value in all processes whose process IDs and start times can be compared.
std::uint64_t namespaceTag();

}  // namespace process_identity_system

}  // namespace VDIFrameworkCommon
