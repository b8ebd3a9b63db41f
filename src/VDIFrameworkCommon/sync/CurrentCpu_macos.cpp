#include "CurrentCpu.h"

namespace VDIFrameworkCommon {

int currentCpu() { return -1; }

}  // namespace VDIFrameworkCommon
