#include "SegmentList.h"

#include <fcntl.h>
#include <unistd.h>

#include "Descriptor.h"
#include "InfoSegments.h"
#include "PosixSharedMemory.h"
#include "VDIClientInfo.h"

namespace vcctl {

bool hasInfoSegments() {
    using namespace VDIFrameworkCommon;
    const std::string client = VDIClientInfo::getInstance().getClientName();
    const auto exists = [](const std::string& name) {
        return static_cast<bool>(
            support::Descriptor(shm_open_mac(segmentObject(name), O_RDONLY, 0)));
    };
    return exists(infoNotificationsName(client)) && exists(infoRequestsName(client));
}

std::string segmentObject(const std::string& name) {
    return std::to_string(geteuid()) + "CWVDI_" + name;
}

}  // namespace vcctl
