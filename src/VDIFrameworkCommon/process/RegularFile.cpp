#include "RegularFile.h"

#include <fcntl.h>

#include <cerrno>

namespace VDIFrameworkCommon {

// Looked at before it is opened, because opening is the harm; and again afterwards, because the
// name may mean something else by then.
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

}  // namespace VDIFrameworkCommon
