// For a bench that sends on one thread and receives on another.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <stdexcept>
#include <thread>

namespace bench {

// Counts up on one thread while another waits for a given count.
class Arrivals {
public:
    void add() { m_count.fetch_add(1, std::memory_order_release); }

    // Throws std::runtime_error if there are fewer than `count` after 30 s.
    void waitFor(std::uint64_t count) const {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (m_count.load(std::memory_order_acquire) < count) {
            if (std::chrono::steady_clock::now() > deadline)
                throw std::runtime_error("messages were lost");
            std::this_thread::yield();
        }
    }

private:
    std::atomic<std::uint64_t> m_count{0};
};

}  // namespace bench
