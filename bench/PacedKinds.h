// The kinds of channel that pause, and the throughput that their pauses allow.
#pragma once

#include <array>
#include <cstddef>

#include "ChannelKinds.h"

namespace bench {

struct PacedKind {
    const char* name;
    std::size_t maxPacket;  // bytes, with its header of 24
    double pause;           // seconds, after every 10 packets
};

constexpr PacedKind pacedKind(NorvoVirtualChannel::ChannelType type, double pause) {
    const auto* const kind = NorvoVirtualChannel::findChannelKind(type);
    return {kind->name, kind->maxPacket, pause};
}

inline constexpr std::array<PacedKind, 3> kPacedKinds{{
    pacedKind(NorvoVirtualChannel::kCitrix, 0.003),
    pacedKind(NorvoVirtualChannel::kRdp, 0.003),
    pacedKind(NorvoVirtualChannel::kVMware, 0.010),
}};

// The most stream messages of `size` bytes per second; the last packet of each may be short.
double mostMessagesPerSecond(const PacedKind& kind, std::size_t size);

}  // namespace bench
