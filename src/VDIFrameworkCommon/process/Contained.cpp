#include "Contained.h"

#include "Log.h"

namespace VDIFrameworkCommon {

void reportFailure(const char* what, const char* why) noexcept {
    NORVO_LOG(Error, what, " has failed: ", why);
}

}  // namespace VDIFrameworkCommon
