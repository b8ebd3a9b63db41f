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
// cannot be read or names no program of the bundle's own.
ApplicationBundle readBundle(const std::string& path);

// The innermost ".app" folder on the way to `executable`; empty when it does not lie in one.
std::string bundlePathOf(const std::string& executable);

// The installed bundle of that identifier; all empty when there is none.
ApplicationBundle findInstalledBundle(const std::string& identifier);

// `location`, with the folder of installed applications replaced as below.
std::string installedPath(const std::string& location);

// False for a bundle that is none of this process's business, see below.
bool isBundleInReach(const std::string& path);

// For tests: takes `folder` for "/Applications" in this process, and makes bundles anywhere else
// unknown to look-ups by identifier, so that no real application is started, found or ended. Empty:
// back to normal. Thread-safe.
void redirectApplications(const std::string& folder);

}  // namespace VDIFrameworkCommon
