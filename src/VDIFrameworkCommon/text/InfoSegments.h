// The two segments of the INFO protocol, shared by the agent and its local processes.
#pragma once

#include <string>
#include <string_view>

namespace VDIFrameworkCommon {

inline constexpr unsigned int kInfoSegmentSize = 10240;  // bytes of data, each

inline constexpr std::string_view kInfoRequestsSuffix = "_Info_STREAM2VC";
inline constexpr std::string_view kInfoNotificationsSuffix = "_Info_VC2STREAM";

// The segment that local processes write and the agent reads. `clientName` is the name that the
// agent's process reports (VDIClientInfo).
inline std::string infoRequestsName(const std::string& clientName) {
    return clientName + std::string(kInfoRequestsSuffix);
}

// The segment that the agent writes and local processes read.
inline std::string infoNotificationsName(const std::string& clientName) {
    return clientName + std::string(kInfoNotificationsSuffix);
}

// Whether it is one of the two, for any client.
inline bool isInfoSegment(std::string_view name) {
    return name.ends_with(kInfoRequestsSuffix) || name.ends_with(kInfoNotificationsSuffix);
}

}  // namespace VDIFrameworkCommon
