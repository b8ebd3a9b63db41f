#pragma once

#include <exception>

namespace VDIFrameworkCommon {

// Logs that `what` has failed because of `why`, if memory allows.
void reportFailure(const char* what, const char* why) noexcept;

// Runs `call` where no exception may escape: at the boundary to the host, and on threads of our
// own. An exception is logged as the failure of `what`; returns false then.
template <class Call>
bool contained(const char* what, const Call& call) noexcept {
    try {
        call();
        return true;
    } catch (const std::exception& failure) {
        reportFailure(what, failure.what());
    } catch (...) {
        reportFailure(what, "unknown exception");
    }
    return false;
}

}  // namespace VDIFrameworkCommon
