#include "MessageBytes.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace VirtualChannelAgent {

using VDIFrameworkCommon::SharedBytes;

namespace {

// Spare room in a block that has grown, as fields are added one by one.
constexpr std::uint32_t kSlack = 1024;

}  // namespace

MessageBytes& MessageBytes::operator=(const MessageBytes& other) {
    if (this == &other) return *this;
    if (!other.m_heap) {
        assign(other.data(), other.m_size);
        return *this;
    }
    m_outside = other.m_outside;
    m_heap = other.m_heap;
    m_heapCapacity = other.m_heapCapacity;
    m_size = other.m_size;
    return *this;
}

bool MessageBytes::assign(const void* bytes, std::uint32_t size) {
    clear();
    std::byte* to = m_inline;
    if (size > kInlineCapacity) {
        m_heap = SharedBytes::allocate(size);
        if (!m_heap) return false;
        m_heapCapacity = size;
        m_outside = to = m_heap.data();
    }
    if (size > 0) std::memcpy(to, bytes, size);
    m_size = size;
    return true;
}

std::byte* MessageBytes::appendInNewPlace(std::uint32_t size) {
    if (size > std::numeric_limits<std::uint32_t>::max() - m_size) return nullptr;
    const std::uint32_t needed = m_size + size;
    const std::uint32_t spare = std::numeric_limits<std::uint32_t>::max() - needed;
    const std::uint32_t slack = m_heap ? std::min({m_size, kSlack, spare}) : 0;
    if (!moveTo(needed + slack)) return nullptr;
    m_size = needed;
    return ownStart() + (needed - size);
}

bool MessageBytes::moveTo(std::uint32_t capacity) {
    if (capacity <= kInlineCapacity) {
        if (m_size > 0) std::memcpy(m_inline, data(), m_size);
        m_outside = nullptr;
        m_heap = SharedBytes();
        return true;
    }
    SharedBytes grown = SharedBytes::allocate(capacity);
    if (!grown) return false;
    if (m_size > 0) std::memcpy(grown.data(), data(), m_size);
    m_heap = std::move(grown);
    m_heapCapacity = capacity;
    m_outside = m_heap.data();
    return true;
}

}  // namespace VirtualChannelAgent
