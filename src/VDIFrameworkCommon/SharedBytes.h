// Bytes on the heap that several owners share.
#pragma once

#include <atomic>
#include <cstddef>
#include <limits>
#include <new>
#include <utility>

namespace VDIFrameworkCommon {

// A handle on one heap block of a size fixed at its allocation; the last handle frees it. Handles
// may be copied and dropped on any thread; the bytes themselves are not synchronised.
class SharedBytes {
public:
    SharedBytes() noexcept = default;

    // `size` bytes of any content, or an empty handle when there is no memory for them. One call of
    // the allocator.
    static SharedBytes allocate(std::size_t size) noexcept {
        SharedBytes bytes;
        if (size > std::numeric_limits<std::size_t>::max() - sizeof(Control)) return bytes;
        if (void* memory = ::operator new(sizeof(Control) + size, std::nothrow))
            bytes.m_control = new (memory) Control;
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
            ::operator delete(m_control);
    }

    explicit operator bool() const noexcept { return m_control != nullptr; }
    // Never null for a handle that is not empty, even of 0 bytes; not to be called on an empty one.
    std::byte* data() const noexcept { return reinterpret_cast<std::byte*>(m_control + 1); }
    bool isShared() const noexcept {
        return m_control && m_control->owners.load(std::memory_order_acquire) > 1;
    }

private:
    struct alignas(std::max_align_t) Control {
        std::atomic<unsigned int> owners{1};
    };
    Control* m_control = nullptr;
};

}  // namespace VDIFrameworkCommon
