#include "PosixSharedMemory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>

#include "FileDescriptor.h"
#include "Log.h"
#include "Namespace.h"
#include "PosixSharedMemorySystem.h"

namespace VDIFrameworkCommon {

namespace {

constexpr std::size_t kHashDigits = 22;
constexpr std::uint64_t kHashBasis = 0xcbf29ce484222325U;

// 64-bit FNV-1a. Format: http://www.isthe.com/chongo/tech/comp/fnv/
std::uint64_t fnv1a(std::string_view text, std::uint64_t basis) {
    for (const char c : text) {
        basis = (basis ^ static_cast<unsigned char>(c)) * 0x100000001b3U;
    }
    return basis;
}

std::string hashDigits(std::string_view text) {
    constexpr char digits[] = "0123456789abcdef";
    std::uint64_t low = fnv1a(text, kHashBasis);
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

int openChecked(const std::string& object, int flags) {
    FileDescriptor file(
        shared_memory_system::openExisting(object.c_str(), flags & ~(O_CREAT | O_EXCL)));
    struct stat status;
    if (!file || (fstat(file.get(), &status) == 0 && isOursAlone(status))) return file.release();
    errno = EACCES;
    return -1;
}

// Whether openChecked() failed because of what holds the name; EINVAL is for folders.
bool isObstacle(int error) {
    return error == EACCES || error == EPERM || error == ELOOP || error == EISDIR ||
           error == EINVAL || error == ENXIO || error == ENODEV;
}

std::string fittingName(std::string full, std::size_t limit) {
    if (full.size() + 1 <= limit && full.find('/') == std::string::npos) return '/' + full;
    const std::string hash = hashDigits(full);
    full.resize(std::min(full.size(), limit - kHashDigits - 2));
    std::replace(full.begin(), full.end(), '/', '_');
    return '/' + full + '_' + hash;
}

// The two objects that a name may refer to. Every process of the user must choose alike at any
// time: the first that exists and is the user's alone; else the documented one is created, unless
// its name is held.
class Names {
public:
    explicit Names(const std::string& name)
        : m_documented(sharedMemoryObjectName(name)), m_own(ownSharedMemoryObjectName(name)) {}

    // Opens the object for the name; -1, errno ENOENT, when there is none. While the documented one
    // exists, only that is tried.
    int openExisting(int flags) {
        int fd = openChecked(m_documented, flags);
        m_error = fd >= 0 ? 0 : errno;
        if (fd >= 0 || (m_error != ENOENT && !isObstacle(m_error))) return fd;
        fd = openChecked(m_own, flags);
        if (fd >= 0 && m_error != ENOENT) tell();
        if (fd >= 0 || errno == ENOENT || !isObstacle(errno)) return fd;
        errno = m_error;
        return -1;
    }

    // The object that openExisting() opened.
    const std::string& opened() const { return m_error == 0 ? m_documented : m_own; }

    // After openExisting(): creates one. EEXIST when another process was faster.
    int createNew(int flags, int mode) {
        if (m_error == ENOENT) {
            return shared_memory_system::createNew(m_documented.c_str(), flags, mode);
        }
        FileDescriptor own(shared_memory_system::createNew(m_own.c_str(), flags, mode));
        if (!own) return -1;
        // The obstacle may have gone, and another process may have created the documented one.
        const FileDescriptor documented(openChecked(m_documented, flags));
        if (!documented) {
            tell();
            return own.release();
        }
        shm_unlink(m_own.c_str());
        errno = EEXIST;
        return -1;
    }

private:
    // Once per name: an object is opened several times for one segment.
    void tell() const {
        static std::array<std::atomic<std::uint64_t>, 64> told;
        const std::uint64_t hash = fnv1a(m_documented, kHashBasis);
        if (told[hash % told.size()].exchange(hash) == hash) return;
        struct stat status {};
        const bool known = shared_memory_system::statusOf(m_documented.c_str(), status);
        const std::string holder = known ? "user " + std::to_string(status.st_uid) : "another user";
        NORVO_LOG(Warning, "The name ", m_documented, " is held by something of ", holder,
                  " that cannot be used; using ", m_own, " instead");
    }

    const std::string m_documented;
    const std::string m_own;
    // Why the documented object could not be opened.
    int m_error = 0;
};

}  // namespace

std::string sharedMemoryObjectName(std::string_view name, std::size_t limit) {
    return fittingName(namespacedName(name), limit);
}

std::string sharedMemoryObjectName(std::string_view name) {
    return sharedMemoryObjectName(name, shared_memory_system::nameLimit());
}

std::string ownSharedMemoryObjectName(std::string_view name) {
    return fittingName('~' + std::to_string(geteuid()) + '.' + namespacedName(name),
                       shared_memory_system::nameLimit());
}

// An existing object is opened without O_CREAT: with it, some systems refuse objects of others in a
// sticky directory before they can be inspected.
int shm_open_mac(const std::string& name, int flags, int mode) {
    if ((flags & O_CREAT) != 0 && (flags & O_EXCL) != 0) {
        return shared_memory_system::createNew(sharedMemoryObjectName(name).c_str(), flags, mode);
    }
    Names names(name);
    for (int attempt = 0; attempt < 100; ++attempt) {
        int fd = names.openExisting(flags);
        if (fd >= 0 || errno != ENOENT || (flags & O_CREAT) == 0) return fd;
        fd = names.createNew(flags, mode);
        if (fd >= 0 || errno != EEXIST) return fd;
    }
    return -1;
}

std::string openedSharedMemoryObject(const std::string& name) {
    Names names(name);
    const FileDescriptor file(names.openExisting(O_RDONLY));
    return file ? names.opened() : std::string();
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
    const bool wasThere = shm_unlink(sharedMemoryObjectName(name).c_str()) == 0;
    const int error = errno;
    if (shm_unlink(ownSharedMemoryObjectName(name).c_str()) == 0 || wasThere) return 0;
    errno = error;
    return -1;
}

bool statusOfSharedMemory(const std::string& name, struct stat& status) {
    return shared_memory_system::statusOf(sharedMemoryObjectName(name).c_str(), status);
}

ObjectHolder holderOfSharedMemory(const std::string& name) {
    struct stat status;
    if (!statusOfSharedMemory(name, status)) return {};
    return {!isOursAlone(status), static_cast<long>(status.st_uid)};
}

bool isSharedMemoryRemoved(const struct stat& status) {
    return shared_memory_system::tellsRemoval() && status.st_nlink == 0;
}

unsigned long long sharedMemoryRoom() { return shared_memory_system::room(); }

bool isSharedMemoryRemovalSeen() { return shared_memory_system::tellsRemoval(); }

bool setExistingObjectsGrow(bool grow) { return g_existingObjectsGrow.exchange(grow); }

}  // namespace VDIFrameworkCommon
