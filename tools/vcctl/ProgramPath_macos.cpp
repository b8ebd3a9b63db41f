#include <mach-o/dyld.h>

#include <cstdint>

#include "ProgramPath.h"

namespace vcctl {

std::string ownProgramPath() {
    char path[4096];
    std::uint32_t size = sizeof path;
    return _NSGetExecutablePath(path, &size) == 0 ? path : "";
}

}  // namespace vcctl
