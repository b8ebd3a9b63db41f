#pragma once

#include <string>

namespace hosts {

// Makes `name` the session namespace of the plug-in, which reads it when it is loaded. Throws
// std::runtime_error when it is none: the plug-in would replace what it does not allow, and two
// could become one.
void useSessionNamespace(const std::string& name);

}  // namespace hosts
