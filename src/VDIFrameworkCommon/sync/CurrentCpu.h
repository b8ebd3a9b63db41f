#pragma once

namespace VDIFrameworkCommon {

// The processor that the calling thread runs on now, from 0; -1 where that cannot be found out
// cheaply. Takes a few nanoseconds.
int currentCpu();

}  // namespace VDIFrameworkCommon
