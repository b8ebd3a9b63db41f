#include "SegmentStatus.h"

namespace NorvoStreamClient {

using shared_memory::OpenFailure;

Status statusOf(const shared_memory::OpenError& error) {
    switch (error.failure) {
        case OpenFailure::InvalidArgument:
            return Reason::InvalidArgument;
        case OpenFailure::CapacityMismatch:
            return {Reason::CapacityMismatch, error.error, error.existingCapacity};
        case OpenFailure::InUse:
            return Reason::InUse;
        case OpenFailure::NoSpace:
            return {Reason::NoSpace, error.error};
        case OpenFailure::NoPermission:
        case OpenFailure::NameTaken:
            return {Reason::NoPermission, error.error};
        case OpenFailure::None:
        case OpenFailure::SystemError:
            break;
    }
    return {Reason::SystemError, error.error};
}

}  // namespace NorvoStreamClient
