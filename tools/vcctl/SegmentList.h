#pragma once

#include <string>
#include <vector>

namespace vcctl {

// The names of this session's segments (as given to Create and Open), sorted. Where the
// system cannot list its shared-memory objects (macOS), those of the known streams that exist.
std::vector<std::string> sessionSegments();

// A segment's object name, as shm_open_mac takes it: user, prefix of the plug-in's client type,
// name.
std::string segmentObject(const std::string& name);

}  // namespace vcctl
