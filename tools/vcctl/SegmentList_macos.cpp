#include <fcntl.h>
#include <unistd.h>

#include "InfoSegments.h"
#include "PosixSharedMemory.h"
#include "SegmentList.h"
#include "VDIClientInfo.h"

namespace vcctl {

std::vector<std::string> sessionSegments() {
    const std::string client = VDIFrameworkCommon::VDIClientInfo::getInstance().getClientName();
    std::vector<std::string> names;
    for (const std::string& name :
         {std::string("Basic"), std::string("Generic"), std::string("GenericUnReliable"),
          std::string("LogCollection"), std::string("Media"),
          VDIFrameworkCommon::infoRequestsName(client),
          VDIFrameworkCommon::infoNotificationsName(client), std::string("StringCipher"),
          std::string("upgrade")}) {
        const int fd = VDIFrameworkCommon::shm_open_mac(segmentObject(name), O_RDONLY, 0);
        if (fd < 0) continue;
        close(fd);
        names.push_back(name);
    }
    return names;
}

bool isSharedMemoryFull() { return false; }

}  // namespace vcctl
