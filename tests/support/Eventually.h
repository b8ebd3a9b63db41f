#pragma once

#include <chrono>
#include <thread>

namespace testsupport {

// Waits, up to `limit`, for a condition that another thread or process brings about. False on
// time-out.
template <class Predicate>
bool eventually(const Predicate& predicate,
                std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!predicate()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
}

inline std::chrono::milliseconds since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                 start);
}

}  // namespace testsupport
