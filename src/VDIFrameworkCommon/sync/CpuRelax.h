#pragma once

namespace VDIFrameworkCommon {

// Tells the processor that the enclosing loop only waits.
inline void cpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__) || defined(__arm__)
    __asm__ __volatile__("yield" ::: "memory");
#endif
}

}  // namespace VDIFrameworkCommon
