#include "PosixSharedMemory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>

#include "Namespace.h"
#include "PosixSharedMemorySystem.h"

namespace VDIFrameworkCommon {

namespace {

constexpr std::size_t kHashDigits = 22;

// 64-bit FNV-1a. Format: http://www.isthe.com/chongo/tech/comp/fnv/
std::uint64_t fnv1a(std::string_view text, std::uint64_t basis) {
    for (const char c : text) {
        basis = (basis ^ static_cast<unsigned char>(c)) * 0x100000001b3U;
    }
    return basis;
}

std::string hashDigits(std::string_view text) {
    constexpr char digits[] = "0123456789abcdef";
    std::uint64_t low = fnv1a(text, 0xcbf29ce484222325U);
    std::uint64_t high = fnv1a(text, low ^ 0x9e3779b97f4a7c15U);
    std::string result;
    for (std::size_t i = 0; i < kHashDigits; ++i) {
        std::uint64_t& half = i < 16 ? low : high;
        result += digits[half & 15];
        half >>= 4;
    }
    return result;
}

std::atomic<bool> g_existingObjectsGrow{true};

bool isOursAlone(const struct stat& status) {
    return shared_memory_system::isObject(status) && status.st_uid == geteuid() &&
           (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

int openChecked(const char* name, int flags) {
    const int fd = shared_memory_system::openExisting(name, flags & ~(O_CREAT | O_EXCL));
    struct stat status;
    if (fd < 0 || (fstat(fd, &status) == 0 && isOursAlone(status))) return fd;
    close(fd);
    errno = EACCES;
    return -1;
}

}  // namespace

std::string sharedMemoryObjectName(std::string_view name, std::size_t limit) {
    std::string full = namespacedName(name);
    if (full.size() + 1 <= limit && full.find('/') == std::string::npos) return '/' + full;
    const std::string hash = hashDigits(full);
    full.resize(std::min(full.size(), limit - kHashDigits - 2));
    std::replace(full.begin(), full.end(), '/', '_');
    return '/' + full + '_' + hash;
}

std::string sharedMemoryObjectName(std::string_view name) {
    return sharedMemoryObjectName(name, shared_memory_system::nameLimit());
}

// An existing object is opened without O_CREAT: with it, some systems refuse objects of others in a
// sticky directory before they could be looked at.
int shm_open_mac(const std::string& name, int flags, int mode) {
    const std::string object = sharedMemoryObjectName(name);
    const bool create = (flags & O_CREAT) != 0;
    const bool exclusive = create && (flags & O_EXCL) != 0;
    for (int attempt = 0; attempt < 100; ++attempt) {
        int fd = exclusive ? -1 : openChecked(object.c_str(), flags);
        if (fd >= 0 || (!exclusive && (errno != ENOENT || !create))) return fd;
        fd = shared_memory_system::createNew(object.c_str(), flags, mode);
        if (fd >= 0 || exclusive || errno != EEXIST) return fd;
    }
    return -1;
}

int ftruncate_mac(int fd, long long length) {
    struct stat status;
    if (fstat(fd, &status) != 0) return -1;
    if (length < 0) {
        errno = EINVAL;
        return -1;
    }
    if (status.st_size >= length) return shared_memory_system::reserve(fd, length);
    if (status.st_size > 0 && !g_existingObjectsGrow.load(std::memory_order_relaxed)) {
        errno = EINVAL;
        return -1;
    }
    return shared_memory_system::grow(fd, status.st_size, length);
}

int shm_unlink_mac(const std::string& name) {
    return shm_unlink(sharedMemoryObjectName(name).c_str());
}

ObjectHolder holderOfSharedMemory(const std::string& name) {
    struct stat status;
    if (!shared_memory_system::statusOf(sharedMemoryObjectName(name).c_str(), status)) return {};
    return {!isOursAlone(status), static_cast<long>(status.st_uid)};
}

bool isSharedMemoryRemoved(const struct stat& status) {
    return shared_memory_system::tellsRemoval() && status.st_nlink == 0;
}

bool isSharedMemoryRemovalSeen() { return shared_memory_system::tellsRemoval(); }

bool setExistingObjectsGrow(bool grow) { return g_existingObjectsGrow.exchange(grow); }

}  // namespace VDIFrameworkCommon
