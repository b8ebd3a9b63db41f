#include <sys/syscall.h>
#include <unistd.h>

#include "ThreadId.h"

namespace VDIFrameworkCommon {

std::uint64_t currentThreadId() { return static_cast<std::uint64_t>(syscall(SYS_gettid)); }

}  // namespace VDIFrameworkCommon
