#pragma once

#include <string>
#include <vector>

namespace vcctl {

// The names of this session's segments (as given to Create and Open), sorted. Where the
// system cannot list its shared-memory objects (macOS), those of the known streams that exist.
std::vector<std::string> sessionSegments();

// Whether both segments of the INFO protocol exist: an agent without them serves no process.
bool hasInfoSegments();

// Whether the shared memory has too little room for an agent's own segments; false where the system
// does not tell (macOS).
bool isSharedMemoryFull();

// A segment's object name, as shm_open_mac takes it: user, prefix of the plug-in's client type,
// name.
std::string segmentObject(const std::string& name);

}  // namespace vcctl
