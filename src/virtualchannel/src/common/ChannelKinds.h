// The kinds of transport: their numbers, names and packets.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>

namespace NorvoVirtualChannel {

// The numbers that hosts use (LanguageAbstraction.h).
enum ChannelType : int { kCitrix = 1, kVMware = 2, kRdp = 3, kTcpSocket = 4 };

struct ChannelKind {
    ChannelType type;
    const char* name;         // for local processes and users
    std::uint32_t maxPacket;  // bytes, header included
};

inline constexpr std::array<ChannelKind, 4> kChannelKinds{{
    {kCitrix, "citrix", 4992},
    {kVMware, "vmware", 1000},
    {kRdp, "rdp", 1500},
    {kTcpSocket, "tcp", 1500},
}};

// Null for an unknown number.
constexpr const ChannelKind* findChannelKind(int type) {
    const auto* const found =
        std::find_if(kChannelKinds.begin(), kChannelKinds.end(),
                     [=](const ChannelKind& each) { return each.type == type; });
    return found == kChannelKinds.end() ? nullptr : found;
}

constexpr unsigned int maxPacketOf(ChannelType type) { return findChannelKind(type)->maxPacket; }

}  // namespace NorvoVirtualChannel
