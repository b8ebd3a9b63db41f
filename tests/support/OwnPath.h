#pragma once

#include <string>

namespace testsupport {

// The path of the running program; empty when the system does not tell.
std::string ownPath();

}  // namespace testsupport
