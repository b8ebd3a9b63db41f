// Why a segment could not be set up.
#pragma once

#include <string>

namespace shared_memory {

enum class OpenFailure {
    None,              // it is set up, or was never asked to be
    InvalidArgument,   // a capacity of 0 or one whose object size does not fit 32 bits
    CapacityMismatch,  // the object that exists is too small, cannot grow, and is in use
    NoSpace,           // the system has no memory left for it
    NoPermission,      // the system refuses this process
    NameTaken,         // what has that name belongs to another user, is open to others, or is not a
                       // shared-memory object
    SystemError,       // anything else; `error` says what
};

struct OpenError {
    OpenFailure failure = OpenFailure::None;
    // The errno behind it; 0 where none is.
    int error = 0;
    // Bytes that the data area of the existing object holds; only for CapacityMismatch.
    unsigned int existingCapacity = 0;
    // The user ID that owns what has the name; -1 when not known. Only for NameTaken.
    long holder = -1;
};

// What the system's refusal with this errno means.
OpenError openErrorFor(int error);

// One clause without a full stop: "no memory is left for it (No space left on device)".
std::string describe(const OpenError& error);

}  // namespace shared_memory
