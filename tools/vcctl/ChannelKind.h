#pragma once

#include <string>

#include "ChannelKinds.h"

namespace vcctl {

using NorvoVirtualChannel::ChannelKind;
using NorvoVirtualChannel::kChannelKinds;

// The kind of that name; throws CommandError for an unknown name.
const ChannelKind& channelKind(const std::string& name);
// Their names, for use in a sentence: "a, b or c".
std::string channelKindNames();

}  // namespace vcctl
