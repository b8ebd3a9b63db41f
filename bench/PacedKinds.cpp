#include "PacedKinds.h"

#include <cmath>
#include <string>

#include "VCMessage.h"

namespace bench {

double mostMessagesPerSecond(const PacedKind& kind, std::size_t size) {
    constexpr double kPacketsPerPause = 10;
    VirtualChannelAgent::VCMessage message;
    message.setMessageType(VirtualChannelAgent::CTL_S_ROUTE);
    message.setStreamName("Media");
    message.setStreamType(0);
    message.setStreamSize(65536);
    message.setRouteData(std::string(size, 'x').data(), static_cast<unsigned int>(size));
    const auto bytes = static_cast<double>(message.wireBytes().size());
    const double packets = std::ceil(bytes / static_cast<double>(kind.maxPacket - 24));
    return kPacketsPerPause / packets / kind.pause;
}

}  // namespace bench
