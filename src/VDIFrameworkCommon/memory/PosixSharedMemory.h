#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace VDIFrameworkCommon {

// Replace shm_open, ftruncate and shm_unlink, with results and errno like theirs: an object is
// opened only if it belongs to this user alone, and is never shrunk.

// Opens the object for `name` (with O_CREAT in `flags`, creates a zero-filled one if needed). A new
// object has exactly the permissions `mode`, whatever the umask. The descriptor is closed on exec.
//
// Of two candidates, opens the first that exists and is this user's alone:
// sharedMemoryObjectName(), then ownSharedMemoryObjectName(), for when the first name is held by an
// object of another user (root included), by one that others may write to, or by something that is
// not shared memory. One log line says so. If neither exists, the first is created, or the second
// if the first name is held. -1, with the first name's errno, when both are held. O_EXCL: only the
// first name is tried.
int shm_open_mac(const std::string& name, int flags, int mode);

// The name of the object that it opens, for display; empty when there is none.
std::string openedSharedMemoryObject(const std::string& name);

// Grows the object to `length` bytes and reserves their memory, so that a full system fails here
// (ENOSPC) and not at the first touch; never shrinks it, as others may have it mapped. An object
// that already has at least that size keeps it, and memory is reserved where it was not. Where the
// system sizes an object only once (macOS), growing it later fails with EINVAL.
int ftruncate_mac(int fd, long long length);

// How many bytes objects may still take. 0 when the system does not tell, or sizes an object only
// once.
unsigned long long sharedMemoryRoom();

// Removes both objects.
int shm_unlink_mac(const std::string& name);

// Who holds the first of the two names, when shm_open_mac was refused.
struct ObjectHolder {
    // The name is held by another user's object, one open to others, or something that is not
    // shared memory. Also false when nothing has the name, or when the system does not tell.
    bool isForeign = false;
    long user = -1;  // its owner's user ID; -1 when the system does not tell
};
ObjectHolder holderOfSharedMemory(const std::string& name);

// The status of whatever has the first of the two names, as far as available without opening it.
// False when nothing is known.
bool statusOfSharedMemory(const std::string& name, struct stat& status);

// Whether the object with this status was removed: it has lost its name. False where the system
// does not tell (macOS).
bool isSharedMemoryRemoved(const struct stat& status);
// Whether the system reports removals.
bool isSharedMemoryRemovalSeen();

// For tests: whether an object that has a size may grow; false imitates a system that sizes an
// object only once. Returns the previous value.
bool setExistingObjectsGrow(bool grow);

// The system's name for `name`: a '/', the session namespace, and `name`. A result longer than
// `limit` characters, or a name with a '/', is shortened to a readable start and a hash of the
// whole.
std::string sharedMemoryObjectName(std::string_view name, std::size_t limit);
// The same with the system's own limit.
std::string sharedMemoryObjectName(std::string_view name);
// The user's own name: a '/', a '~', the effective user ID, a '.', and then as above. No documented
// name begins like that.
std::string ownSharedMemoryObjectName(std::string_view name);

}  // namespace VDIFrameworkCommon
