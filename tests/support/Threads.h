#pragma once

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

}  // namespace testsupport
