#include <filesystem>
#include <set>

#include "PosixSharedMemory.h"
#include "SegmentList.h"

namespace vcctl {

std::vector<std::string> sessionSegments() {
    std::set<std::string> names;
    for (const std::string& start :
         {VDIFrameworkCommon::sharedMemoryObjectName(segmentObject("")),
          VDIFrameworkCommon::ownSharedMemoryObjectName(segmentObject(""))}) {
        std::error_code ignored;
        for (const auto& entry : std::filesystem::directory_iterator("/dev/shm", ignored)) {
            const std::string object = '/' + entry.path().filename().string();
            if (object.starts_with(start)) names.insert(object.substr(start.size()));
        }
    }
    return {names.begin(), names.end()};
}

bool isSharedMemoryFull() {
    // Two segments with their mutexes, conditions and registers, a few pages each.
    constexpr unsigned long long kNeeded = 128u << 10;
    return VDIFrameworkCommon::sharedMemoryRoom() < kNeeded;
}

}  // namespace vcctl
