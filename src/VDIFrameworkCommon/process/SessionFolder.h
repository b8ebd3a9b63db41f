// The folders for the small files by which a user's processes find each other: the common one that
// all know, and places of the user's own for when somebody else stands in the way there.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "FileDescriptor.h"

namespace VDIFrameworkCommon {

// For everybody, whoever comes first makes it: sticky, so that only its owner removes a file. But
// the first may also have made it otherwise, or have put things under other users' names.
inline constexpr char kCommonFolder[] = "/tmp/norvo";

// The folders of `user` in the order in which they are tried, the common one first.
std::vector<std::string> sessionFolders(uid_t user);

// Opens one of them. Empty, with errno set, when it is not there, when others than root and its
// owner could exchange files in it, or when it is to be the user's own and is not.
FileDescriptor openSessionFolder(const std::string& path, uid_t user);
// Makes it first when it is missing.
FileDescriptor makeSessionFolder(const std::string& path, uid_t user);

// The folders of `user` that nobody else can write to on this kind of system; they need not exist.
std::vector<std::string> privateFolders(uid_t user);

}  // namespace VDIFrameworkCommon
