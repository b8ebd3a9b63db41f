#include "OpenFailure.h"

#include <cerrno>
#include <cstring>

namespace shared_memory {

namespace {

std::string reason(const OpenError& error) {
    switch (error.failure) {
        case OpenFailure::None:
            return "it did not fail";
        case OpenFailure::InvalidArgument:
            return "its capacity is invalid";
        case OpenFailure::CapacityMismatch:
            return "the existing one has a capacity of " + std::to_string(error.existingCapacity) +
                   " bytes and is in use";
        case OpenFailure::InUse:
            return "another end of the same role is in use";
        case OpenFailure::NoSpace:
            return "no memory is left for it";
        case OpenFailure::NoPermission:
            return "this process may not open it";
        case OpenFailure::NameTaken:
            if (error.holder < 0) return "its name is taken by something else";
            return "its name is taken by something of user " + std::to_string(error.holder);
        case OpenFailure::SystemError:
            break;
    }
    return "the system refused it";
}

}  // namespace

OpenError openErrorFor(int error) {
    const bool lacksSpace = error == ENOSPC || error == ENOMEM || error == EFBIG;
    const bool isRefused = error == EACCES || error == EPERM;
    return {lacksSpace  ? OpenFailure::NoSpace
            : isRefused ? OpenFailure::NoPermission
                        : OpenFailure::SystemError,
            error, 0, -1};
}

std::string describe(const OpenError& error) {
    std::string text = reason(error);
    if (error.error != 0) text += std::string(" (") + std::strerror(error.error) + ')';
    return text;
}

}  // namespace shared_memory
