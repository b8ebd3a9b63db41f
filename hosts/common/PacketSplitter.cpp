#include "PacketSplitter.h"

#include <algorithm>

namespace hosts {

namespace {

constexpr std::size_t kVersionEnd = 4;  // the protocol version is the two bytes before

std::uint32_t numberAt(const unsigned char* bytes) {
    std::uint32_t number = 0;
    std::memcpy(&number, bytes, sizeof number);
    return number;
}

}  // namespace

PacketSplitter::PacketSplitter(std::uint32_t maxPacket, std::size_t capacity)
    : m_maxPayload(maxPacket - kHeaderSize), m_buffer(std::max<std::size_t>(capacity, maxPacket)) {}

std::span<unsigned char> PacketSplitter::room() {
    if (m_begin > 0) {
        std::memmove(m_buffer.data(), m_buffer.data() + m_begin, m_end - m_begin);
        m_end -= m_begin;
        m_begin = 0;
    }
    return {m_buffer.data() + m_end, m_buffer.size() - m_end};
}

std::uint32_t PacketSplitter::nextPacket() {
    for (; m_end - m_begin >= kVersionEnd; ++m_begin) {
        const unsigned char* bytes = m_buffer.data() + m_begin;
        if (bytes[2] == 91 && bytes[3] == 0) {
            if (m_end - m_begin < kHeaderSize) return 0;
            if (mayBeHeader(bytes)) {
                const std::uint32_t length = kHeaderSize + numberAt(bytes + 16);
                if (m_end - m_begin < length) return 0;
                m_searching = false;
                return length;
            }
        }
        m_searching = true;
        ++m_skipped;
    }
    return 0;
}

// A header at an uncertain position must also be consistent in itself.
bool PacketSplitter::mayBeHeader(const unsigned char* bytes) const {
    const std::uint32_t sequence = numberAt(bytes + 4);
    const std::uint32_t total = numberAt(bytes + 8);
    const std::uint32_t payload = numberAt(bytes + 16);
    const std::uint32_t message = numberAt(bytes + 20);
    if (sequence < 1 || sequence > total || payload > m_maxPayload || message < kHeaderSize ||
        message - kHeaderSize < payload)
        return false;
    if (!m_searching) return true;
    const std::uint64_t content = message - kHeaderSize;
    return total <= std::max<std::uint64_t>(1, content) &&
           content <= std::uint64_t{total} * m_maxPayload;
}

}  // namespace hosts
