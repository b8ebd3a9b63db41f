#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace vcctl {

// What passed so far, and its checksum: both ends of a transfer count, and compare at the end mark.
//
// The end mark is the last message of a transfer, 48 bytes: the 24 bytes of kMagic, then, each as
// an unsigned 64-bit little-endian number, the count of messages, of bytes, and the XXH3 checksum
// of all bytes. Format of the checksum: https://github.com/Cyan4973/xxHash (XXH3_64bits, seed 0).
class TransferTally {
public:
    TransferTally();
    ~TransferTally();
    TransferTally(const TransferTally&) = delete;
    TransferTally& operator=(const TransferTally&) = delete;

    void add(const void* data, std::size_t length);

    std::uint64_t messages() const { return m_messages; }
    std::uint64_t bytes() const { return m_bytes; }
    std::uint64_t checksum() const;

    std::string endMark() const;
    // Empty when `message` is no end mark. Otherwise what is wrong with the transfer; an empty text
    // when it is whole.
    std::optional<std::string> judge(const std::string& message) const;

private:
    struct Hash;
    Hash* m_hash;
    std::uint64_t m_messages = 0;
    std::uint64_t m_bytes = 0;
};

}  // namespace vcctl
