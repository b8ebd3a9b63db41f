#include <mach-o/dyld.h>

#include "OwnPath.h"

namespace support {

std::string ownPath() {
    char path[4096];
    uint32_t size = sizeof path;
    return _NSGetExecutablePath(path, &size) == 0 ? std::string(path) : std::string();
}

}  // namespace support
