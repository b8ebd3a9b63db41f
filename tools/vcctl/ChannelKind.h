#pragma once

#include <cstdint>
#include <string>

#include "PacketHeader.h"

namespace vcctl {

struct ChannelKind {
    const char* name;
    std::uint32_t number;     // what InitialiseChannel takes
    std::uint32_t maxPacket;  // bytes, header included
};

inline constexpr ChannelKind kChannelKinds[] = {
    {"citrix", 1, 4992}, {"vmware", 2, 1000}, {"rdp", 3, 1500}, {"tcp", 4, 1500}};

// A packet without payload.
inline constexpr std::uint32_t kMinPacket = NorvoVirtualChannel::kPacketHeaderSize;

// The kind of that name; throws CommandError for another text.
const ChannelKind& channelKind(const std::string& name);

}  // namespace vcctl
