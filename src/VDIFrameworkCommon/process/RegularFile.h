// Files whose names come from outside. Only regular files are opened: opening a pipe or a device
// takes data from its readers, wakes its writers, or blocks.
#pragma once

#include <sys/stat.h>

#include <string>

#include "FileDescriptor.h"

namespace VDIFrameworkCommon {

// Opens the regular file at `path` for reading; links are followed. Empty when there is none or it
// cannot be read. Never waits for a writer, never acquires a controlling terminal.
FileDescriptor openRegularFile(const std::string& path);

// Up to `most` bytes from the start of the regular file at `path`; empty when it cannot be read.
std::string startOfRegularFile(const std::string& path, std::size_t most);

// "folder of user 1001, mode 755", for log lines.
std::string describeFile(const struct stat& status);
// The same for the entry `name` of the open folder (AT_FDCWD: the working directory).
std::string describeFile(int folder, const std::string& name);

inline bool isSameFile(const struct stat& a, const struct stat& b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

}  // namespace VDIFrameworkCommon
