// Who has a segment open, according to its registry (SegmentRegistry.h). An end that does not
// register is unknown.
#pragma once

#include <sys/types.h>

#include <string>

#include "SegmentRegistry.h"

namespace shared_memory {

// Whether a living process, this one included, has the segment `name` open.
bool isSegmentInUse(const std::string& name);

// The same for a process other than this one.
bool isSegmentInUseElsewhere(const std::string& name);

// A living process, perhaps this one, that has it open in that role; 0 when there is none.
pid_t processOfEnd(const std::string& name, SegmentRegistry::Role role);

// Removes the segment from the system, with its mutex, conditions and registry, unless a living
// process has it open. False when it stays for that reason, or when another process kept its mutex
// for 100 ms. True when it is gone, also when there was none.
bool removeSegmentIfUnused(const std::string& name);

}  // namespace shared_memory
