#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>

#include "FileDescriptor.h"
#include "PosixSharedMemorySystem.h"

namespace VDIFrameworkCommon::shared_memory_system {

std::size_t nameLimit() { return 30; }

int openExisting(const char* name, int flags) { return shm_open(name, flags, 0); }

int createNew(const char* name, int flags, int mode) {
    return shm_open(name, flags | O_CREAT | O_EXCL, static_cast<mode_t>(mode));
}

// The status of a shared-memory object has no file type here.
bool isObject(const struct stat& status) { return (status.st_mode & S_IFMT) == 0; }

// An object can be sized only once. EINVAL also means that another process is inside that one call;
// the size is then still 0 for a moment.
int grow(int fd, long long current, long long length) {
    if (current > 0) {
        errno = EINVAL;
        return -1;
    }
    for (int attempt = 0; attempt < 200; ++attempt) {
        if (ftruncate(fd, static_cast<off_t>(length)) == 0) return 0;
        if (errno != EINVAL) return -1;
        struct stat status;
        if (fstat(fd, &status) != 0) return -1;
        if (status.st_size >= length) return 0;
        if (status.st_size > 0) break;
        usleep(500);
    }
    errno = EINVAL;
    return -1;
}

// Sizing an object reserves its memory.
int reserve(int, long long) { return 0; }

unsigned long long room() { return 0; }

bool tellsRemoval() { return false; }

bool statusOf(const char* name, struct stat& status) {
    const FileDescriptor file(shm_open(name, O_RDONLY, 0));
    return file && fstat(file.get(), &status) == 0;
}

}  // namespace VDIFrameworkCommon::shared_memory_system
