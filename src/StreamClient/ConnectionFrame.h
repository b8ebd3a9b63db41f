#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace NorvoStreamClient {

// One frame of the connection protocol: the content of one stream message (docs/connections.md).
// Each end of a connection has an epoch, a random number other than 0. Positions count the bytes of
// one direction from 0; the end of a direction also takes up one position.
struct ConnectionFrame {
    enum class Kind : std::uint8_t { Hello = 1, Welcome = 2, Data = 3, Reset = 4 };
    // The payload is the last of its direction.
    static constexpr std::uint8_t kEnd = 1;
    // Requests an immediate answer.
    static constexpr std::uint8_t kAnswer = 2;
    static constexpr std::size_t kHeaderSize = 72;

    Kind kind = Kind::Data;
    std::uint8_t flags = 0;
    std::uint64_t from = 0;      // the sender's epoch
    std::uint64_t to = 0;        // the receiver's epoch; 0 in a Hello
    std::uint64_t number = 0;    // of this transmission, from 1; 0 without data or end
    std::uint64_t seen = 0;      // the highest number received
    std::uint64_t offset = 0;    // position of the payload
    std::uint64_t acked = 0;     // all earlier positions have arrived
    std::uint64_t limit = 0;     // data may be sent up to this position
    std::uint32_t messages = 0;  // how many numbered frames may be in flight

    bool has(std::uint8_t flag) const { return (flags & flag) != 0; }
    // The header for a payload of `length` bytes.
    void writeHeader(char* header, std::size_t length) const;
    // Nothing when `message` is not a frame. The payload follows the header.
    static std::optional<ConnectionFrame> parse(std::string_view message);
};

}  // namespace NorvoStreamClient
