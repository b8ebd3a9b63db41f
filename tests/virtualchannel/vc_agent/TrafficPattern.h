// Messages that say where they come from and can be checked byte by byte.
#pragma once

#include <time.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>

namespace testsupport {

// The machine's monotonic clock, which all processes share.
inline std::uint64_t monotonicNs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 +
           static_cast<std::uint64_t>(now.tv_nsec);
}

// The beginning of every message.
struct TrafficHeader {
    std::uint32_t stream;
    std::uint32_t size;      // of the whole message
    std::uint64_t number;    // rises along a stream
    std::uint64_t sentAtNs;  // monotonicNs()
};

// A writer that begins, or whose last message may not have come through, goes on at the next
// multiple of this: only from there on the numbers have no gap.
inline constexpr std::uint64_t kBeginnings = 10'000;

inline std::uint64_t scramble(std::uint64_t value) {
    value += 0x9E3779B97F4A7C15;
    value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9;
    value = (value ^ (value >> 27)) * 0x94D049BB133111EB;
    return value ^ (value >> 31);
}

// From 1 byte to `largest`, each power of two as often as the others. Messages shorter than the
// header are a beginning of it.
inline std::uint32_t trafficSize(std::uint32_t stream, std::uint64_t number, std::uint32_t smallest,
                                 std::uint32_t largest) {
    const std::uint64_t random = scramble(number * 64 + stream);
    const std::uint32_t bound = largest >> (random % 21);
    return std::clamp(static_cast<std::uint32_t>(scramble(random) % (bound + 1U)), smallest,
                      largest);
}

inline std::string trafficMessage(const TrafficHeader& header) {
    std::string text((std::max<std::size_t>(header.size, sizeof header) + 7) / 8 * 8, '\0');
    for (std::size_t at = 0; at < text.size(); at += 8) {
        const std::uint64_t word = scramble(header.number * 1000003 + header.stream + at);
        std::memcpy(text.data() + at, &word, 8);
    }
    std::memcpy(text.data(), &header, sizeof header);
    text.resize(header.size);
    return text;
}

}  // namespace testsupport
