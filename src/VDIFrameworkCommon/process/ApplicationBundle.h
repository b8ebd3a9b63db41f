// Application bundles: folders whose name ends in ".app", with the program in Contents/MacOS and a
// description of it in Contents/Info.plist. The same on both systems.
#pragma once

#include <string>

namespace VDIFrameworkCommon {

struct ApplicationBundle {
    std::string path;
    std::string identifier;  // CFBundleIdentifier
    std::string executable;  // path of the program, from CFBundleExecutable
};

// The bundle at `path`; all empty when there is none, or when its description (XML, at most 1 MiB)
// cannot be read or names no program inside the bundle.
ApplicationBundle readBundle(const std::string& path);

// The innermost ".app" folder that contains `executable`; empty when there is none.
std::string bundlePathOf(const std::string& executable);

// The installed bundle with that identifier; all empty when there is none.
ApplicationBundle findInstalledBundle(const std::string& identifier);

// `location`, with the folder of installed applications redirected as below.
std::string installedPath(const std::string& location);

// False for a bundle hidden by redirectApplications().
bool isBundleInReach(const std::string& path);

// For tests: uses `folder` as "/Applications" in this process, and hides bundles anywhere else from
// look-ups by identifier, so that no real application is started, found or ended. Empty: back to
// normal. Thread-safe.
void redirectApplications(const std::string& folder);

}  // namespace VDIFrameworkCommon
