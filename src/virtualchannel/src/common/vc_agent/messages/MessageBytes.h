#pragma once

#include <cstddef>
#include <cstdint>

#include "SharedBytes.h"

namespace VirtualChannelAgent {

// The growing bytes of one message. Few bytes lie in the object itself, more in a heap block, which
// copies share until one of them changes; or they are somebody else's, and only looked at. Not
// synchronised.
class MessageBytes {
public:
    // Room for every control message, and for routed data of about a hundred bytes.
    static constexpr std::uint32_t kInlineCapacity = 240;

    // No bytes.
    MessageBytes() = default;
    // The copy of borrowed bytes is not borrowed any more; it is empty when there is no memory.
    MessageBytes(const MessageBytes& other) { *this = other; }
    MessageBytes& operator=(const MessageBytes& other);

    const std::byte* data() const { return m_outside ? m_outside : m_inline; }
    std::uint32_t size() const { return m_size; }

    void clear() {
        m_outside = nullptr;
        m_heap = VDIFrameworkCommon::SharedBytes();
        m_size = 0;
    }
    // Replaces what is there by a copy of `size` bytes, or lets this object look at them where they
    // are. False, with no bytes left, when there is no memory.
    bool assign(const void* bytes, std::uint32_t size);
    void borrow(const void* bytes, std::uint32_t size) {
        clear();
        m_outside = static_cast<const std::byte*>(bytes);
        m_size = size;
    }

    // Adds `size` bytes of any content at the end and returns where they begin; null, with nothing
    // changed, when there is no memory for them or their sum does not fit 32 bits.
    std::byte* append(std::uint32_t size) {
        if (!isOwn() || size > capacity() - m_size) return appendInNewPlace(size);
        m_size += size;
        return ownStart() + (m_size - size);
    }
    // What is there, to be changed; null, with nothing changed, when there is no memory for bytes
    // of its own.
    std::byte* own() { return isOwn() || moveTo(m_size) ? ownStart() : nullptr; }

private:
    std::uint32_t capacity() const { return m_heap ? m_heapCapacity : kInlineCapacity; }
    bool isOwn() const { return !m_outside || (m_heap && !m_heap.isShared()); }
    std::byte* ownStart() { return m_heap ? m_heap.data() : m_inline; }
    std::byte* appendInNewPlace(std::uint32_t size);
    bool moveTo(std::uint32_t capacity);

    const std::byte* m_outside = nullptr;    // null: the bytes lie in m_inline
    VDIFrameworkCommon::SharedBytes m_heap;  // empty: m_inline, or borrowed
    std::uint32_t m_heapCapacity = 0;
    std::uint32_t m_size = 0;
    std::byte m_inline[kInlineCapacity];
};

}  // namespace VirtualChannelAgent
