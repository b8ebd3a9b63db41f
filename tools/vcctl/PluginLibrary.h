#pragma once

#include <string>

#include "Plugin.h"

namespace vcctl {

// Loads `path`, or when it is empty the library that belongs to this program (beside it in a
// build, in the library directory of an installation). Throws CommandError.
hosts::Plugin loadPlugin(const std::string& path);

// Where the library that belongs to this program is; its bare name when it is in neither place.
std::string ownPluginPath();

}  // namespace vcctl
