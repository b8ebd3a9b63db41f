#pragma once

#include <string>

namespace vcctl {

// The path of the running program.
std::string ownProgramPath();

}  // namespace vcctl
