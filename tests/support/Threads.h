#pragma once

#include <sys/resource.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <thread>
#include <vector>

#include "Rounds.h"

namespace testsupport {

// Runs `work` on `count` concurrent threads, numbered from 0, and waits for all to end.
inline void onThreads(int count, const std::function<void(int number)>& work) {
    std::vector<std::thread> threads;
    for (int number = 0; number < count; ++number) threads.emplace_back(work, number);
    for (auto& thread : threads) thread.join();
}

// Runs `step` without room for the stack of another thread. Only in a process where no thread has
// ended yet, as their stacks are kept, and not with a sanitizer, which needs the address space.
inline void withoutNewThreads(const std::function<void()>& step) {
    std::size_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    rlimit before{};
    getrlimit(RLIMIT_AS, &before);
    const rlimit noStack{pages * static_cast<std::size_t>(getpagesize()) + (3U << 20),
                         before.rlim_max};
    setrlimit(RLIMIT_AS, &noStack);
    step();
    setrlimit(RLIMIT_AS, &before);
}
// Whether that is possible here.
inline bool canRefuseThreads() { return !kSanitized && access("/proc/self/statm", R_OK) == 0; }

}  // namespace testsupport
