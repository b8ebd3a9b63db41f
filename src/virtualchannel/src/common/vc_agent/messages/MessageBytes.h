#pragma once

#include <cstddef>
#include <cstdint>

#include "SharedBytes.h"

namespace VirtualChannelAgent {

// The growing bytes of one message. A few bytes are stored in the object itself, more in a heap
// block that copies share until one of them changes. They may also be borrowed from elsewhere. Not
// synchronised.
class MessageBytes {
public:
    // Fits every control message, and routed data of about a hundred bytes.
    static constexpr std::uint32_t kInlineCapacity = 240;

    // No bytes.
    MessageBytes() = default;
    // A copy of borrowed bytes owns its bytes; it is empty when there is no memory.
    MessageBytes(const MessageBytes& other) { *this = other; }
    MessageBytes& operator=(const MessageBytes& other);

    const std::byte* data() const { return m_outside ? m_outside : m_inline; }
    std::uint32_t size() const { return m_size; }

    void clear() {
        m_outside = nullptr;
        m_heap = VDIFrameworkCommon::SharedBytes();
        m_size = 0;
    }
    // Replaces the contents by a copy of `size` bytes, or by a view of them. False, and then empty,
    // when there is no memory.
    bool assign(const void* bytes, std::uint32_t size);
    void borrow(const void* bytes, std::uint32_t size) {
        clear();
        m_outside = static_cast<const std::byte*>(bytes);
        m_size = size;
    }

    bool isBorrowed() const { return m_outside && !m_heap; }

    // Appends `size` uninitialised bytes and returns where they begin; null, with nothing changed,
    // when there is no memory or the total does not fit 32 bits.
    std::byte* append(std::uint32_t size) {
        if (!isOwn() || size > capacity() - m_size) return appendInNewPlace(size);
        m_size += size;
        return ownStart() + (m_size - size);
    }
    // The bytes, unshared and writable; null, with nothing changed, when there is no memory for a
    // copy.
    std::byte* own() { return isOwn() || moveTo(m_size) ? ownStart() : nullptr; }

private:
    std::uint32_t capacity() const { return m_heap ? m_heapCapacity : kInlineCapacity; }
    bool isOwn() const { return !m_outside || (m_heap && !m_heap.isShared()); }
    std::byte* ownStart() { return m_heap ? m_heap.data() : m_inline; }
    std::byte* appendInNewPlace(std::uint32_t size);
    bool moveTo(std::uint32_t capacity);

    const std::byte* m_outside = nullptr;    // null: the bytes are in m_inline
    VDIFrameworkCommon::SharedBytes m_heap;  // empty: m_inline, or borrowed
    std::uint32_t m_heapCapacity = 0;
    std::uint32_t m_size = 0;
    std::byte m_inline[kInlineCapacity];
};

}  // namespace VirtualChannelAgent
