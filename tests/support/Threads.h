#pragma once

#include <functional>
#include <thread>
#include <vector>

namespace testsupport {

// Runs `work` on `count` threads at a time, which are numbered from 0, until all have ended.
inline void onThreads(int count, const std::function<void(int number)>& work) {
    std::vector<std::thread> threads;
    for (int number = 0; number < count; ++number) threads.emplace_back(work, number);
    for (auto& thread : threads) thread.join();
}

}  // namespace testsupport
