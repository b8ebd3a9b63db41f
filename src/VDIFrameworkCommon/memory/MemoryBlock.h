// Large buffers that are needed again and again, as for messages and their packets.
#pragma once

#include <cstddef>
#include <utility>

namespace VDIFrameworkCommon {

// Memory with one owner, uninitialised unless stated. The memory of a destroyed block is kept for
// the next one, in the whole process: for large blocks an allocator asks the system for memory, and
// the system supplies it page by page, each time. What nobody has used for a while is freed
// (freeOld). Blocks may be made and destroyed on any thread; one block is not synchronised.
class MemoryBlock {
public:
    // Smaller blocks are not kept: the allocator is as fast.
    static constexpr std::size_t kSmallestKept = 16 * 1024;
    static constexpr std::size_t kMostKept = 32U << 20;  // bytes, all together

    // A kept block of `wanted` bytes (at least `size`) up to twice as many; otherwise a new one of
    // `size` bytes (not 0), rounded up. Empty when out of memory.
    static MemoryBlock allocate(std::size_t size, std::size_t wanted) noexcept;

    // `size` bytes (not 0) of zeros, which need memory only where they are touched.
    static MemoryBlock zeroed(std::size_t size) noexcept;

    MemoryBlock() noexcept = default;
    MemoryBlock(MemoryBlock&& other) noexcept
        : m_data(std::exchange(other.m_data, nullptr)),
          m_capacity(std::exchange(other.m_capacity, 0)) {}
    MemoryBlock& operator=(MemoryBlock&& other) noexcept {
        std::swap(m_data, other.m_data);
        std::swap(m_capacity, other.m_capacity);
        return *this;
    }
    ~MemoryBlock() {
        if (m_data) giveUp(m_data, m_capacity);
    }

    explicit operator bool() const noexcept { return m_data != nullptr; }
    std::byte* data() const noexcept { return m_data; }
    std::size_t capacity() const noexcept { return m_capacity; }

    // Frees what has been kept since before the last call. To be called now and then; costs next to
    // nothing when nothing is kept.
    static void freeOld() noexcept;
    // Whether memory is kept at all; initially so. When not, what is kept is freed.
    static void setKeeping(bool isKept) noexcept;
    // Bytes kept.
    static std::size_t kept() noexcept;

private:
    MemoryBlock(std::byte* data, std::size_t capacity) noexcept
        : m_data(data), m_capacity(capacity) {}
    static void giveUp(std::byte* data, std::size_t capacity) noexcept;

    std::byte* m_data = nullptr;
    std::size_t m_capacity = 0;
};

}  // namespace VDIFrameworkCommon
