#include <algorithm>
#include <filesystem>

#include "PosixSharedMemory.h"
#include "SegmentList.h"

namespace vcctl {

std::vector<std::string> sessionSegments() {
    const std::string start =
        VDIFrameworkCommon::sharedMemoryObjectName(segmentObject("")).substr(1);
    std::vector<std::string> names;
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator("/dev/shm", ignored)) {
        const std::string object = entry.path().filename().string();
        if (object.rfind(start, 0) == 0) names.push_back(object.substr(start.size()));
    }
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace vcctl
