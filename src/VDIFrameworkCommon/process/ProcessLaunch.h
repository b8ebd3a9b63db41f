#pragma once

#include <spawn.h>

#include <string>
#include <vector>

#include "ApplicationBundle.h"

namespace VDIFrameworkCommon {

// Starts the program at `path` as a stranger to this process: in a session of its own, reaped by
// the system, with standard streams from and to nowhere, no other descriptor, no blocked and no
// handled or ignored signal. False when it could not be started.
bool launchDetached(const std::string& path, const std::vector<std::string>& arguments);

// The same, and waits for its end, for at most 20 s. False also when its exit status is not 0.
bool runDetached(const std::string& path, const std::vector<std::string>& arguments);

// What the systems do differently.

// Starts an application bundle. False when it could not be started.
bool launchBundle(const ApplicationBundle& bundle, const std::vector<std::string>& arguments);
// Starts the bundle that the system itself knows by that identifier. False when there is none, and
// always where the system keeps no such register (Linux).
bool launchByIdentifier(const std::string& identifier);
// What `environ` is; not the caller's.
char** environmentOfProcess();
// Makes the spawned program inherit no descriptor but the standard ones. Adds to `flags`.
void closeOtherDescriptors(posix_spawn_file_actions_t& actions, short& flags);

}  // namespace VDIFrameworkCommon
