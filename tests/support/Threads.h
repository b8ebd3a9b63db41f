#pragma once

#include <pthread.h>

#include <functional>
#include <thread>
#include <vector>

namespace testsupport {

// Runs `work` on `count` concurrent threads, numbered from 0, and waits for all to end.
inline void onThreads(int count, const std::function<void(int number)>& work) {
    std::vector<std::thread> threads;
    for (int number = 0; number < count; ++number) threads.emplace_back(work, number);
    for (auto& thread : threads) thread.join();
}

#ifdef __linux__
// Runs `step` while no thread can be created: none has room for the stack that each would get, and
// no stack of an ended thread is that large.
inline void withoutNewThreads(const std::function<void()>& step) {
    pthread_attr_t before;
    pthread_attr_t endless;
    pthread_getattr_default_np(&before);
    pthread_getattr_default_np(&endless);
    pthread_attr_setstacksize(&endless, std::size_t{1} << 60U);
    pthread_setattr_default_np(&endless);
    step();
    pthread_setattr_default_np(&before);
    pthread_attr_destroy(&before);
    pthread_attr_destroy(&endless);
}
inline bool canRefuseThreads() { return true; }
#else
inline void withoutNewThreads(const std::function<void()>& step) { step(); }
inline bool canRefuseThreads() { return false; }
#endif

}  // namespace testsupport
