#include "OpenFileLimit.h"

long setOpenFileLimit(pid_t /*process*/, long /*limit*/) { return -1; }
