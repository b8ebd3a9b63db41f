// Why a segment could not be set up.
#pragma once

#include <string>

namespace shared_memory {

enum class OpenFailure {
    None,              // set up, or never attempted
    InvalidArgument,   // a capacity of 0 or one whose object size does not fit 32 bits
    CapacityMismatch,  // the existing object is too small, cannot grow, and is in use
    InUse,             // another end has it open in the same role, and this one was to be the only
    NoSpace,           // the system has no memory left for it
    NoPermission,      // the system refuses this process
    NameTaken,         // held by another user's object, one open to others, or no shared memory
    SystemError,       // anything else; `error` says what
};

struct OpenError {
    OpenFailure failure = OpenFailure::None;
    // The errno behind it; 0 when there is none.
    int error = 0;
    // Bytes of the existing object's data area; only for CapacityMismatch.
    unsigned int existingCapacity = 0;
    // User ID of the name's owner; -1 when unknown. Only for NameTaken.
    long holder = -1;
};

// The meaning of a system call's failure with this errno.
OpenError openErrorFor(int error);

// One clause without a full stop: "no memory is left for it (No space left on device)".
std::string describe(const OpenError& error);

}  // namespace shared_memory
