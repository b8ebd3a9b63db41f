#pragma once

#include <sys/types.h>

// The limit of open descriptors of another process. Answers what it was; -1 where the system cannot
// change that of a process that runs.
long setOpenFileLimit(pid_t process, long limit);
