#pragma once

#include <string>

#include "Plugin.h"

namespace vcctl {

// Loads `path`, or if empty, the library that belongs to this program (beside it in a
// build, in the library directory of an installation). Throws CommandError.
hosts::Plugin loadPlugin(const std::string& path);

// The path of the library that belongs to this program; its bare name if it is in neither place.
std::string ownPluginPath();

}  // namespace vcctl
