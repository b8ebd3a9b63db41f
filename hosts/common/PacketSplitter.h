#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

namespace hosts {

// The largest packet of the RDP channel, header included (wire-formats.md).
inline constexpr std::uint32_t kRdpPacket = 1500;

// Finds the packets in a byte stream, however the transport has joined or cut them, by the length
// in each packet's header. Bytes that cannot start a packet are skipped. Not thread-safe.
class PacketSplitter {
public:
    static constexpr std::uint32_t kHeaderSize = 24;

    // `maxPacket`: the channel's largest packet, header included; at least 25.
    explicit PacketSplitter(std::uint32_t maxPacket, std::size_t capacity = 256u << 10);

    // The buffer for the next bytes, never empty. Valid until the next call.
    std::span<unsigned char> room();

    // Takes in the first `count` bytes of room(), and calls receive(unsigned char* packet,
    // std::uint32_t length) for each complete packet. receive() may change the bytes, and may call
    // only reset() and skipped().
    template <class Receive>
    void take(std::size_t count, const Receive& receive) {
        m_end += count;
        while (const std::uint32_t length = nextPacket()) {
            unsigned char* packet = m_buffer.data() + m_begin;
            m_begin += length;
            receive(packet, length);
        }
    }

    // The same for any number of bytes elsewhere.
    template <class Receive>
    void add(std::span<const unsigned char> bytes, const Receive& receive) {
        while (!bytes.empty()) {
            const auto free = room();
            const std::size_t count = bytes.size() < free.size() ? bytes.size() : free.size();
            std::memcpy(free.data(), bytes.data(), count);
            bytes = bytes.subspan(count);
            take(count, receive);
        }
    }

    // Discards a partial packet. Call whenever the stream restarts; otherwise two halves of
    // different packets would be delivered as one.
    void reset() { m_begin = m_end = 0; }
    // The same after lost bytes: the next ones may be from the middle of a packet.
    void resetInside() {
        reset();
        m_searching = true;
    }

    // Bytes skipped since construction.
    std::uint64_t skipped() const { return m_skipped; }

private:
    // The length of the packet at m_begin; 0 when more bytes are needed.
    std::uint32_t nextPacket();
    bool mayBeHeader(const unsigned char* bytes) const;

    const std::uint32_t m_maxPayload;
    std::vector<unsigned char> m_buffer;
    std::size_t m_begin = 0;
    std::size_t m_end = 0;
    std::uint64_t m_skipped = 0;
    bool m_searching = false;
};

}  // namespace hosts
