// A packet on the wire is a 24-byte header followed by the payload:
//
//     offset  width  field
//          0      2  secondary version, written as 91, any value accepted
//          2      2  protocol version, 91
//          4      4  sequence: 1-based place of the packet within its message
//          8      4  total packets of the message
//         12      4  packet ID: the message's ID, the same in all of its packets
//         16      4  payload size: bytes behind this header
//         20      4  message size: bytes of the whole message + 24, the same in all of its packets
//
// All integers are little-endian, as in memory.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

namespace NorvoVirtualChannel {

static_assert(std::endian::native == std::endian::little);

struct Header {
    static constexpr std::uint16_t kVersion = 0x5B;

    std::uint16_t secondaryVersion = kVersion;
    std::uint16_t protocolVersion = kVersion;
    std::uint32_t sequence = 0;
    std::uint32_t totalPackets = 0;
    std::uint32_t packetId = 0;
    std::uint32_t payloadSize = 0;
    std::uint32_t messageSize = 0;
};
static_assert(offsetof(Header, protocolVersion) == 2 && offsetof(Header, sequence) == 4 &&
              offsetof(Header, totalPackets) == 8 && offsetof(Header, packetId) == 12 &&
              offsetof(Header, payloadSize) == 16 && offsetof(Header, messageSize) == 20 &&
              sizeof(Header) == 24);

inline constexpr std::uint32_t kPacketHeaderSize = sizeof(Header);

}  // namespace NorvoVirtualChannel
