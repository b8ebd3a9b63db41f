#pragma once

#include <string>

namespace support {

// The path of the running program; empty if unknown.
std::string ownPath();

}  // namespace support
