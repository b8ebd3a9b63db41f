#include <filesystem>

#include "ProgramPath.h"

namespace vcctl {

std::string ownProgramPath() {
    std::error_code failed;
    return std::filesystem::read_symlink("/proc/self/exe", failed).string();
}

}  // namespace vcctl
