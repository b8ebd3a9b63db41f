#include "SessionFolder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace VDIFrameworkCommon {

namespace {

constexpr mode_t kForAll = S_ISVTX | 0777;
constexpr mode_t kForOne = 0755;  // others may see who is marked

bool isCommon(const std::string& path) { return path == kCommonFolder; }

bool isTrusted(const struct stat& status, const std::string& path, uid_t user) {
    const bool shared = (status.st_mode & (S_IWGRP | S_IWOTH)) != 0;
    if (!isCommon(path)) return !shared && status.st_uid == user;
    return !shared || (status.st_mode & S_ISVTX) != 0;
}

}  // namespace

std::vector<std::string> sessionFolders(uid_t user) {
    std::vector<std::string> folders{kCommonFolder};
    for (auto& folder : privateFolders(user)) folders.push_back(std::move(folder));
    folders.push_back(std::string(kCommonFolder) + '-' + std::to_string(user));
    return folders;
}

FileDescriptor openSessionFolder(const std::string& path, uid_t user) {
    FileDescriptor folder(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status {};
    if (!folder || fstat(folder.get(), &status) != 0) return FileDescriptor();
    if (isTrusted(status, path, user)) return folder;
    errno = EPERM;
    return FileDescriptor();
}

FileDescriptor makeSessionFolder(const std::string& path, uid_t user) {
    const mode_t mode = isCommon(path) ? kForAll : kForOne;
    mkdir(path.c_str(), mode);
    FileDescriptor folder = openSessionFolder(path, user);
    struct stat status {};
    if (folder && fstat(folder.get(), &status) == 0 && status.st_uid == geteuid() &&
        (status.st_mode & 07777) != mode) {
        fchmod(folder.get(), mode);
    }
    return folder;
}

}  // namespace VDIFrameworkCommon
