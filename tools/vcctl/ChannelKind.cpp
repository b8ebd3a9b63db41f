#include "ChannelKind.h"

#include "CommandError.h"

namespace vcctl {

const ChannelKind& channelKind(const std::string& name) {
    for (const ChannelKind& kind : kChannelKinds) {
        if (name == kind.name) return kind;
    }
    throw CommandError("'" + name + "' is no channel kind: " + channelKindNames(), kUsage);
}

std::string channelKindNames() {
    std::string names;
    for (const ChannelKind& kind : kChannelKinds) {
        const bool isLast = &kind == &kChannelKinds.back();
        if (!names.empty()) names += isLast ? " or " : ", ";
        names += kind.name;
    }
    return names;
}

}  // namespace vcctl
