#pragma once

#include <cstdint>
#include <string>

namespace vcctl {

// Bytes so far and their checksum: XXH3_64bits, seed 0 (https://github.com/Cyan4973/xxHash).
class TransferTally {
public:
    TransferTally();
    ~TransferTally();
    TransferTally(const TransferTally&) = delete;
    TransferTally& operator=(const TransferTally&) = delete;

    void add(const void* data, std::size_t length);

    std::uint64_t bytes() const { return m_bytes; }
    std::uint64_t checksum() const;

    // Counts a file's bytes from its beginning to `end`; throws CommandError.
    void addFile(int descriptor, std::uint64_t end, const std::string& name);

    // Resets to zero.
    void clear();

private:
    struct Hash;
    Hash* m_hash;
    std::uint64_t m_bytes = 0;
};

}  // namespace vcctl
