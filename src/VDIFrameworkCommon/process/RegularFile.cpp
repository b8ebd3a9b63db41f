#include "RegularFile.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdio>

namespace VDIFrameworkCommon {

// Checked before it is opened, because opening does the harm, and again afterwards, because the
// name may refer to something else by then.
FileDescriptor openRegularFile(const std::string& path) {
    struct stat named {};
    if (stat(path.c_str(), &named) != 0 || !S_ISREG(named.st_mode)) return FileDescriptor();
    FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat opened {};
    const bool right = file && fstat(file.get(), &opened) == 0 && S_ISREG(opened.st_mode);
    return right ? std::move(file) : FileDescriptor();
}

std::string startOfRegularFile(const std::string& path, std::size_t most) {
    const FileDescriptor file = openRegularFile(path);
    std::string text(file ? most : 0, '\0');
    std::size_t have = 0;
    while (have < text.size()) {
        const ssize_t got = read(file.get(), text.data() + have, text.size() - have);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        have += static_cast<std::size_t>(got);
    }
    text.resize(have);
    return text;
}

std::string describeFile(const struct stat& status) {
    const char* kind = "special file";
    if (S_ISREG(status.st_mode)) kind = "file";
    if (S_ISDIR(status.st_mode)) kind = "folder";
    if (S_ISLNK(status.st_mode)) kind = "symbolic link";
    if (S_ISFIFO(status.st_mode)) kind = "FIFO";
    char mode[8];
    std::snprintf(mode, sizeof mode, "%o", status.st_mode & 07777U);
    return std::string(kind) + " of user " + std::to_string(status.st_uid) + ", mode " + mode;
}

std::string describeFile(int folder, const std::string& name) {
    struct stat status {};
    const bool known = fstatat(folder, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
    return known ? describeFile(status) : "missing";
}

}  // namespace VDIFrameworkCommon
