#pragma once

namespace VDIFrameworkCommon {

// The processor that the calling thread runs on now, from 0; -1 where the system does not tell
// cheaply. A few nanoseconds.
int currentCpu();

}  // namespace VDIFrameworkCommon
