#pragma once

#include <string>

namespace support {

// The path of the running program; empty when the system does not tell.
std::string ownPath();

}  // namespace support
