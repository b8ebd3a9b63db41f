// The kinds of channel that pause, and what their pauses let through.
#pragma once

#include <array>
#include <cstddef>

namespace bench {

struct PacedKind {
    const char* name;
    std::size_t maxPacket;  // bytes, with its header of 24
    double pause;           // seconds, after every 10 packets
};

inline constexpr std::array<PacedKind, 3> kPacedKinds{{
    {"citrix", 4992, 0.003},
    {"rdp", 1500, 0.003},
    {"vmware", 1000, 0.010},
}};

// Stream messages of `size` bytes in a second at most; the last packet of each may be short.
double mostMessagesPerSecond(const PacedKind& kind, std::size_t size);

}  // namespace bench
