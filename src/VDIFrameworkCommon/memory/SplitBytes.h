#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <span>

namespace VDIFrameworkCommon {

// Bytes that lie in two places, and are one after the other where they are copied to. Not owned.
struct SplitBytes {
    std::span<const std::byte> first;
    std::span<const std::byte> second;

    std::size_t size() const { return first.size() + second.size(); }

    // Copies `count` of the bytes, from `offset` on.
    void copy(std::size_t offset, std::size_t count, std::byte* to) const {
        if (offset < first.size()) {
            const std::size_t part = std::min(count, first.size() - offset);
            std::memcpy(to, first.data() + offset, part);
            to += part;
            offset += part;
            count -= part;
        }
        if (count > 0) std::memcpy(to, second.data() + (offset - first.size()), count);
    }
};

}  // namespace VDIFrameworkCommon
