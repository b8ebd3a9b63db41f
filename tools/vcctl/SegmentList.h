#pragma once

#include <string>
#include <vector>

namespace vcctl {

// The names of this session's segments (what Create and Open were given), in order. Where the
// system cannot list its shared-memory objects (macOS), those of the known streams that exist.
std::vector<std::string> sessionSegments();

// The object of a segment, as shm_open_mac takes it: user, prefix of the plug-in's client type,
// name.
std::string segmentObject(const std::string& name);

}  // namespace vcctl
