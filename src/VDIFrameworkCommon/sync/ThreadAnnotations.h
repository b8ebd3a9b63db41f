// Names for Clang's thread-safety attributes; other compilers see nothing.
// Format: https://clang.llvm.org/docs/ThreadSafetyAnalysis.html
#pragma once

#if defined(__clang__)
#define NORVO_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define NORVO_THREAD_ATTRIBUTE(x)
#endif

#define NORVO_CAPABILITY(name) NORVO_THREAD_ATTRIBUTE(capability(name))
#define NORVO_SCOPED_CAPABILITY NORVO_THREAD_ATTRIBUTE(scoped_lockable)
#define NORVO_GUARDED_BY(mutex) NORVO_THREAD_ATTRIBUTE(guarded_by(mutex))
#define NORVO_PT_GUARDED_BY(mutex) NORVO_THREAD_ATTRIBUTE(pt_guarded_by(mutex))
#define NORVO_REQUIRES(...) NORVO_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define NORVO_ACQUIRE(...) NORVO_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define NORVO_TRY_ACQUIRE(...) NORVO_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define NORVO_RELEASE(...) NORVO_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define NORVO_EXCLUDES(...) NORVO_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define NORVO_ACQUIRED_AFTER(...) NORVO_THREAD_ATTRIBUTE(acquired_after(__VA_ARGS__))
#define NORVO_NO_THREAD_SAFETY_ANALYSIS NORVO_THREAD_ATTRIBUTE(no_thread_safety_analysis)
