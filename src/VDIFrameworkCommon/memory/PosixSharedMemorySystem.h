// System-specific handling of shared-memory objects; used by PosixSharedMemory.cpp only.
#pragma once

#include <sys/stat.h>

#include <cstddef>

namespace VDIFrameworkCommon::shared_memory_system {

// The longest object name, with its leading '/'.
std::size_t nameLimit();

// shm_open of an existing object; never blocks on what is not one.
int openExisting(const char* name, int flags);

// shm_open with O_CREAT and O_EXCL; the new object gets exactly `mode`.
int createNew(const char* name, int flags, int mode);

// Whether the status is that of a shared-memory object.
bool isObject(const struct stat& status);

// Grows an object of `current` bytes to `length`; like ftruncate. May be called by several
// processes at once.
int grow(int fd, long long current, long long length);

// Reserves memory for the first `length` bytes of an object that has at least that size. 0, or -1
// with errno.
int reserve(int fd, long long length);

// Bytes that objects may still take; 0 when the system does not tell, or when objects cannot grow.
unsigned long long room();

// Whether a status shows that an object's name was removed.
bool tellsRemoval();

// The status of whatever has that object name, as far as available without permission to open it;
// symbolic links are not followed. False when nothing is known.
bool statusOf(const char* name, struct stat& status);

}  // namespace VDIFrameworkCommon::shared_memory_system
