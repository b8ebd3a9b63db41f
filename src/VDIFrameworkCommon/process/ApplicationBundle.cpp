#include "ApplicationBundle.h"

#include <filesystem>

#include "LocalMutex.h"
#include "PropertyList.h"
#include "RegularFile.h"

namespace VDIFrameworkCommon {

namespace {

constexpr std::string_view kApplications = "/Applications";

struct Redirection {
    LocalMutex mutex;
    std::string folder NORVO_GUARDED_BY(mutex);
};

Redirection& redirection() {
    static auto* const instance = new Redirection;
    return *instance;
}

std::string redirectedFolder() {
    LocalLock lock(redirection().mutex);
    return redirection().folder;
}

// Empty when it is not a readable, regular file of a sensible size.
std::string descriptionOf(const std::string& bundle) {
    constexpr std::size_t kLargest = std::size_t{1} << 20;
    std::string text = startOfRegularFile(bundle + "/Contents/Info.plist", kLargest + 1);
    if (text.size() > kLargest) text.clear();
    return text;
}

}  // namespace

ApplicationBundle readBundle(const std::string& path) {
    const std::string description = descriptionOf(path);
    const std::string program = propertyListString(description, "CFBundleExecutable");
    if (program.empty() || program.find('/') != std::string::npos) return {};
    return {path, propertyListString(description, "CFBundleIdentifier"),
            path + "/Contents/MacOS/" + program};
}

std::string bundlePathOf(const std::string& executable) {
    const auto at = executable.rfind(".app/");
    return at == std::string::npos ? std::string() : executable.substr(0, at + 4);
}

ApplicationBundle findInstalledBundle(const std::string& identifier) {
    constexpr int kMost = 10000;
    std::error_code error;
    std::filesystem::directory_iterator entry(installedPath(std::string(kApplications)), error);
    for (int seen = 0; !error && entry != std::filesystem::directory_iterator() && seen < kMost;
         ++seen, entry.increment(error)) {
        if (entry->path().extension() != ".app") continue;
        ApplicationBundle bundle = readBundle(entry->path());
        if (!identifier.empty() && bundle.identifier == identifier) return bundle;
    }
    return {};
}

std::string installedPath(const std::string& location) {
    const std::string folder = redirectedFolder();
    const std::string rest =
        location.starts_with(kApplications) ? location.substr(kApplications.size()) : "";
    const bool installed = location == kApplications || rest.starts_with('/');
    return folder.empty() || !installed ? location : folder + rest;
}

bool isBundleInReach(const std::string& path) {
    const std::string folder = redirectedFolder();
    return folder.empty() || path.starts_with(folder + '/');
}

void redirectApplications(const std::string& folder) {
    std::error_code error;
    const auto resolved = std::filesystem::canonical(folder, error);
    LocalLock lock(redirection().mutex);
    redirection().folder = error ? folder : resolved.string();
}

}  // namespace VDIFrameworkCommon
