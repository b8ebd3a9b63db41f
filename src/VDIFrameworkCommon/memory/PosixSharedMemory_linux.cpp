#include <fcntl.h>
#include <sys/mman.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "PosixSharedMemorySystem.h"

namespace VDIFrameworkCommon::shared_memory_system {

std::size_t nameLimit() { return 255; }

int openExisting(const char* name, int flags) { return shm_open(name, flags | O_NONBLOCK, 0); }

int createNew(const char* name, int flags, int mode) {
    const auto permissions = static_cast<mode_t>(mode);
    const int fd = shm_open(name, flags | O_CREAT | O_EXCL, permissions);
    struct stat status;
    // The umask was applied: another process of this user would be locked out.
    if (fd >= 0 && fstat(fd, &status) == 0 && (status.st_mode & 07777) != permissions) {
        fchmod(fd, permissions);
    }
    return fd;
}

bool isObject(const struct stat& status) { return S_ISREG(status.st_mode); }

int grow(int fd, long long, long long length) { return reserve(fd, length); }

// posix_fallocate only ever extends, so two processes that size an object at once cannot shrink it.
int reserve(int fd, long long length) {
    int error = EINTR;
    for (int attempt = 0; attempt < 100 && error == EINTR; ++attempt) {
        error = posix_fallocate(fd, 0, static_cast<off_t>(length));
    }
    if (error != 0) errno = error;
    return error == 0 ? 0 : -1;
}

unsigned long long room() {
    struct statvfs status {};
    if (statvfs("/dev/shm", &status) != 0) return 0;
    return static_cast<unsigned long long>(status.f_bavail) * status.f_frsize;
}

bool tellsRemoval() { return true; }

bool statusOf(const char* name, struct stat& status) {
    return lstat((std::string("/dev/shm") + name).c_str(), &status) == 0;
}

}  // namespace VDIFrameworkCommon::shared_memory_system
