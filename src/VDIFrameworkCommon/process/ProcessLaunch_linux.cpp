#include <unistd.h>

#include "ProcessLaunch.h"

namespace VDIFrameworkCommon {

bool launchBundle(const ApplicationBundle& bundle, const std::vector<std::string>& arguments) {
    return launchDetached(bundle.executable, arguments);
}

bool launchByIdentifier(const std::string&) { return false; }

char** environmentOfProcess() { return environ; }

void closeOtherDescriptors(posix_spawn_file_actions_t& actions, short&) {
    posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
}

}  // namespace VDIFrameworkCommon
