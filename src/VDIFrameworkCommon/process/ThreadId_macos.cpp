#include <pthread.h>

#include "ThreadId.h"

namespace VDIFrameworkCommon {

std::uint64_t currentThreadId() {
    std::uint64_t id = 0;
    pthread_threadid_np(nullptr, &id);
    return id;
}

}  // namespace VDIFrameworkCommon
