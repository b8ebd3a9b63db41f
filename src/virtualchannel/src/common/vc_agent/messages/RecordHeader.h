#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

namespace VirtualChannelAgent {

static_assert(std::endian::native == std::endian::little);

// The 20-byte header of a block or, with another flag, of a message. Little-endian and packed on
// the wire:
//
//     offset  width  field
//          0      2  flag: 0xCDCD for a block, 0xCBCB for a message
//          2      2  a message's checksum, always 0 and never checked; 0 in a block
//          4      1  type: a block's field code, a message's message type
//          5      4  size of the whole block or message in bytes, these 20 included
//          9     11  0
struct RecordHeader {
    static constexpr std::uint32_t kSize = 20;
    static constexpr std::uint32_t kTypeOffset = 4;
    static constexpr std::uint32_t kSizeOffset = 5;
    static constexpr std::uint16_t kBlockFlag = 0xCDCD;
    static constexpr std::uint16_t kMessageFlag = 0xCBCB;

    std::uint16_t flag = 0;
    std::uint8_t type = 0;
    std::uint32_t size = 0;

    // `from` and `to`: at least `kSize` bytes, of any alignment.
    static RecordHeader read(const void* from) {
        const auto bytes = static_cast<const unsigned char*>(from);
        RecordHeader header;
        std::memcpy(&header.flag, bytes, sizeof header.flag);
        header.type = bytes[kTypeOffset];
        std::memcpy(&header.size, bytes + kSizeOffset, sizeof header.size);
        return header;
    }
    void write(void* to) const {
        const auto bytes = static_cast<unsigned char*>(to);
        std::memset(bytes, 0, kSize);
        std::memcpy(bytes, &flag, sizeof flag);
        bytes[kTypeOffset] = type;
        std::memcpy(bytes + kSizeOffset, &size, sizeof size);
    }
};

}  // namespace VirtualChannelAgent
