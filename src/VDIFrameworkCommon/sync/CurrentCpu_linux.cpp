#include <sched.h>

#include "CurrentCpu.h"

namespace VDIFrameworkCommon {

int currentCpu() { return sched_getcpu(); }

}  // namespace VDIFrameworkCommon
