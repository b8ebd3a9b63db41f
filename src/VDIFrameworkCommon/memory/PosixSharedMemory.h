#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace VDIFrameworkCommon {

// Thin wrappers of shm_open, ftruncate and shm_unlink; results and errno are theirs.

// Opens (with O_CREAT in `flags`: or makes, zero-filled) the object that stands for `name`. A new
// object has exactly the permissions `mode`, whatever the umask. The descriptor is closed on exec.
//
// That is the first of two that exists and is this user's alone: the one called
// sharedMemoryObjectName(), and the one called ownSharedMemoryObjectName(), for when something else
// holds the first name: an object of another user (root's, too), one that others may write to, or
// what is not a shared-memory object. One log line says so. When there is neither, the first is
// made, or the second if the first name is held. -1, errno that of the first name, when both are.
// O_EXCL: only the first name is looked at.
int shm_open_mac(const std::string& name, int flags, int mode);

// The object that it opens (for people); empty when there is none.
std::string openedSharedMemoryObject(const std::string& name);

// Grows the object to `length` bytes and reserves their memory, so that a full system fails here
// (ENOSPC) and not at the first touch; never shrinks one that others may have mapped. An object
// that already has at least that size keeps it, and what somebody left without memory gets it.
// Where the system sizes an object only once (macOS), growing it later fails with EINVAL.
int ftruncate_mac(int fd, long long length);

// Removes both.
int shm_unlink_mac(const std::string& name);

// Who holds the first of the two names, when shm_open_mac was refused.
struct ObjectHolder {
    // What has the name belongs to another user, is open to others, or is not a shared-memory
    // object. False also when nothing has the name, or when the system does not tell.
    bool isForeign = false;
    long user = -1;  // its owner's user ID; -1 when the system does not tell
};
ObjectHolder holderOfSharedMemory(const std::string& name);

// Whether the object of this status has lost its name: somebody removed it. False where the system
// does not tell (macOS).
bool isSharedMemoryRemoved(const struct stat& status);
// Whether the system tells.
bool isSharedMemoryRemovalSeen();

// For tests: whether an object that has a size may grow; false is as on a system that sizes an
// object only once. Returns what it was.
bool setExistingObjectsGrow(bool grow);

// What the system is given for `name`: a '/', the session namespace, and `name`. What is longer
// than `limit` characters in all, or holds a '/', is cut to a readable start and a hash of the
// whole.
std::string sharedMemoryObjectName(std::string_view name, std::size_t limit);
// The same with the system's own limit.
std::string sharedMemoryObjectName(std::string_view name);
// The user's own: a '/', a '~', the effective user ID, a '.', and then as above. No documented name
// begins like that.
std::string ownSharedMemoryObjectName(std::string_view name);

}  // namespace VDIFrameworkCommon
