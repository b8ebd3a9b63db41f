#include "Contained.h"

#include "Log.h"

namespace VDIFrameworkCommon {

void reportFailure(const char* what, const char* why) noexcept {
    try {
        NORVO_LOG(Error, what, " has failed: ", why);
    } catch (...) {  // NOLINT(bugprone-empty-catch): there is no other place to tell it
    }
}

}  // namespace VDIFrameworkCommon
