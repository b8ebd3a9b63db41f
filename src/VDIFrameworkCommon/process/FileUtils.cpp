#include "FileUtils.h"

#include <sys/stat.h>
#include <unistd.h>

#include "Namespace.h"

namespace VDIFrameworkCommon {

namespace {

bool isDirectory(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

}  // namespace

bool FileUtils::fileExists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

// Not the target of a link, nor a hard link that another user has made to a file of this user.
bool FileUtils::isOwnFile(const std::string& path) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0 || (S_ISREG(status.st_mode) && status.st_nlink != 1))
        return false;
    return status.st_uid == geteuid() || status.st_uid == 0;
}

bool FileUtils::createDirectory(const std::string& path) {
    for (std::size_t end = path.find('/', 1); end != std::string::npos;
         end = path.find('/', end + 1)) {
        mkdir(path.substr(0, end).c_str(), 0700);
    }
    if (!path.empty()) mkdir(path.c_str(), 0700);
    return isDirectory(path);
}

std::string FileUtils::FileSeparator() { return "/"; }

std::string FileUtils::markerPath(const std::string& directory, const std::string& name) {
    return directory + namespacedName(name);
}

}  // namespace VDIFrameworkCommon
