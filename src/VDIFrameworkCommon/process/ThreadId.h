#pragma once

#include <cstdint>

namespace VDIFrameworkCommon {

// The number the system's own tools show for the calling thread.
std::uint64_t currentThreadId();

}  // namespace VDIFrameworkCommon
