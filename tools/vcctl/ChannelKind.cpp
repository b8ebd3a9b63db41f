#include "ChannelKind.h"

#include "CommandError.h"

namespace vcctl {

const ChannelKind& channelKind(const std::string& name) {
    for (const ChannelKind& kind : kChannelKinds) {
        if (name == kind.name) return kind;
    }
    throw CommandError("'" + name + "' is no channel kind: citrix, vmware, rdp or tcp", kUsage);
}

}  // namespace vcctl
