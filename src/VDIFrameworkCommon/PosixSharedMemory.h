#pragma once

#include <string>

namespace VDIFrameworkCommon {

// Thin wrappers of shm_open, ftruncate and shm_unlink; results and errno are theirs.

// Puts the leading '/' and the session namespace on `name`, and shortens what is longer than the
// system allows to a readable start and a hash. Refuses (-1, errno EACCES) an object of another
// user or one that others may write to, and whatever is not a shared-memory object.
int shm_open_mac(const std::string& name, int flags, int mode);

// Grows the object to `length` bytes; never shrinks one that others may have mapped. An object that
// already has at least that size is left alone and 0 is returned.
int ftruncate_mac(int fd, long long length);

int shm_unlink_mac(const std::string& name);

}  // namespace VDIFrameworkCommon
