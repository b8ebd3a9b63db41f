#include <unistd.h>

#include "OwnPath.h"

namespace support {

std::string ownPath() {
    char path[4096];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
    return length > 0 ? std::string(path, static_cast<size_t>(length)) : std::string();
}

}  // namespace support
