#pragma once

#include <string>

#include "ChannelKinds.h"
#include "PacketHeader.h"

namespace vcctl {

using NorvoVirtualChannel::ChannelKind;
using NorvoVirtualChannel::kChannelKinds;

// A packet without payload.
inline constexpr std::uint32_t kMinPacket = NorvoVirtualChannel::kPacketHeaderSize;

// The kind of that name; throws CommandError for another text.
const ChannelKind& channelKind(const std::string& name);
// Their names, as a sentence has them: "a, b or c".
std::string channelKindNames();

}  // namespace vcctl
