// Bytes on the heap that several owners share.
#pragma once

#include <atomic>
#include <cstddef>
#include <limits>
#include <new>
#include <utility>

#include "SpareBlock.h"

namespace VDIFrameworkCommon {

// A handle on one heap block of a size fixed at its allocation; the last handle frees it. Handles
// may be copied and dropped on any thread; the bytes themselves are not synchronised.
class SharedBytes {
public:
    SharedBytes() noexcept = default;

    // `size` uninitialised bytes, or an empty handle when out of memory.
    static SharedBytes allocate(std::size_t size) noexcept {
        SharedBytes bytes;
        if (size > std::numeric_limits<std::size_t>::max() / 16) return bytes;
        std::size_t capacity = 0;
        if (void* const memory = m_memory.allocate(sizeof(Control) + size, capacity))
            bytes.m_control = ::new (memory) Control(capacity);
        return bytes;
    }

    SharedBytes(const SharedBytes& other) noexcept : m_control(other.m_control) {
        if (m_control) m_control->owners.fetch_add(1, std::memory_order_relaxed);
    }
    SharedBytes(SharedBytes&& other) noexcept
        : m_control(std::exchange(other.m_control, nullptr)) {}
    SharedBytes& operator=(SharedBytes other) noexcept {
        std::swap(m_control, other.m_control);
        return *this;
    }
    ~SharedBytes() {
        // A sole owner needs no read-modify-write: nobody else can add one.
        if (!m_control) return;
        if (m_control->owners.load(std::memory_order_acquire) == 1 ||
            m_control->owners.fetch_sub(1, std::memory_order_acq_rel) == 1)
            m_memory.release(m_control, m_control->capacity);
    }

    explicit operator bool() const noexcept { return m_control != nullptr; }
    // Never null for a handle that is not empty, even of 0 bytes; not to be called on an empty one.
    std::byte* data() const noexcept { return reinterpret_cast<std::byte*>(m_control + 1); }
    bool isShared() const noexcept {
        return m_control && m_control->owners.load(std::memory_order_acquire) > 1;
    }

private:
    struct alignas(std::max_align_t) Control {
        explicit Control(std::size_t size) : capacity(size) {}
        std::atomic<unsigned int> owners{1};
        const std::size_t capacity;
    };
    inline static SpareBlock m_memory;

    Control* m_control = nullptr;
};

}  // namespace VDIFrameworkCommon
