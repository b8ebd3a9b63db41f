// Applications are started by the system's launcher, which gives them their own session and their
// own identity in permission prompts, and honours quarantine. Its exit status tells whether there
// was anything to start.
#include <crt_externs.h>

#include "ProcessLaunch.h"

namespace VDIFrameworkCommon {

namespace {

constexpr char kOpen[] = "/usr/bin/open";

}  // namespace

bool launchBundle(const ApplicationBundle& bundle, const std::vector<std::string>& arguments) {
    std::vector<std::string> all{"-g", bundle.path};
    if (!arguments.empty()) all.emplace_back("--args");
    all.insert(all.end(), arguments.begin(), arguments.end());
    return runDetached(kOpen, all);
}

bool launchByIdentifier(const std::string& identifier) {
    return runDetached(kOpen, {"-g", "-b", identifier});
}

char** environmentOfProcess() { return *_NSGetEnviron(); }

void closeOtherDescriptors(posix_spawn_file_actions_t&, short& flags) {
    flags = static_cast<short>(flags | POSIX_SPAWN_CLOEXEC_DEFAULT);
}

}  // namespace VDIFrameworkCommon
