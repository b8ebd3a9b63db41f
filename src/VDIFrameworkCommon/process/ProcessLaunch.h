#pragma once

#include <spawn.h>

#include <string>
#include <vector>

#include "ApplicationBundle.h"

namespace VDIFrameworkCommon {

// Starts the program at `path` detached from this process: in its own session, reaped by the
// system, with standard streams on /dev/null, no other descriptor, and no signal blocked, handled
// or ignored. False when it could not be started.
bool launchDetached(const std::string& path, const std::vector<std::string>& arguments);

// The same, but waits up to 20 s for it to end. Also false when its exit status is not 0.
bool runDetached(const std::string& path, const std::vector<std::string>& arguments);

// System-specific parts.

// Starts an application bundle. False when it could not be started.
bool launchBundle(const ApplicationBundle& bundle, const std::vector<std::string>& arguments);
// Starts the bundle registered with the system under that identifier. False when there is none, and
// always on systems without such a registry (Linux).
bool launchByIdentifier(const std::string& identifier);
// The value of `environ`; not owned by the caller.
char** environmentOfProcess();
// Makes the spawned program inherit no descriptor but the standard ones. Adds to `flags`.
void closeOtherDescriptors(posix_spawn_file_actions_t& actions, short& flags);

}  // namespace VDIFrameworkCommon
