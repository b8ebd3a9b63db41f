// Folders for the small files by which a user's processes find each other: the common one that all
// know, and private ones for when another user obstructs it.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "FileDescriptor.h"

namespace VDIFrameworkCommon {

// Shared by all users and created by the first: sticky, so that only a file's owner can remove it.
// But that user may have created it differently, or have put things under other users' names.
inline constexpr char kCommonFolder[] = "/tmp/norvo";

// The folders of `user` in the order in which they are tried, the common one first.
std::vector<std::string> sessionFolders(uid_t user);

// Opens one of them. Empty, with errno set, when it does not exist, when users other than root and
// its owner could replace files in it, or when it must be the user's own and is not.
FileDescriptor openSessionFolder(const std::string& path, uid_t user);
// Creates it first if missing.
FileDescriptor makeSessionFolder(const std::string& path, uid_t user);

// The folders of `user` that nobody else can write to on this system; they need not exist.
std::vector<std::string> privateFolders(uid_t user);

}  // namespace VDIFrameworkCommon
