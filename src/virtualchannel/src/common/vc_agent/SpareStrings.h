#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "LockOrder.h"

namespace VirtualChannelAgent {

// Keeps the memory of finished messages for later ones. Allocators return the memory of large
// strings to the system as soon as a few are free, and then fault it in again page by page.
// Thread-safe.
class SpareStrings {
public:
    // For smaller strings the allocator is faster.
    static constexpr std::size_t kSmallest = 4096;
    // The most that is kept, for as long as the object lives.
    static constexpr std::size_t kMostBytes = 1024 * 1024;

    // A copy of `size` bytes, in kept memory if there is any.
    std::string copyOf(const char* data, std::size_t size) NORVO_TAKES_LEAF {
        std::string copy;
        if (size >= kSmallest) copy = take();
        copy.assign(data, size);
        return copy;
    }

    void giveBack(std::string message) NORVO_TAKES_LEAF {
        const std::size_t capacity = message.capacity();
        if (capacity < kSmallest || capacity > kMostBytes) return;
        lock_order::OrderedLock lock(m_mutex, lock_order::leaf);
        if (m_bytes + capacity > kMostBytes) return;
        m_bytes += capacity;
        m_strings.push_back(std::move(message));
    }

private:
    // The last one returned is the most likely to be in the cache.
    std::string take() NORVO_TAKES_LEAF {
        lock_order::OrderedLock lock(m_mutex, lock_order::leaf);
        if (m_strings.empty()) return {};
        std::string last = std::move(m_strings.back());
        m_strings.pop_back();
        m_bytes -= last.capacity();
        return last;
    }

    VDIFrameworkCommon::LocalMutex m_mutex;
    std::vector<std::string> m_strings NORVO_GUARDED_BY(m_mutex);
    std::size_t m_bytes NORVO_GUARDED_BY(m_mutex) = 0;
};

}  // namespace VirtualChannelAgent
