#include "NamedObject.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <utility>

#include "FileDescriptor.h"
#include "LocalMutex.h"
#include "Log.h"
#include "PosixSharedMemory.h"

namespace VDIFrameworkCommon {

namespace {

constexpr std::uint64_t kMagic = 0x4f53564eU;  // "NVSO"
constexpr std::uint64_t kLayoutVersion = 1;
constexpr std::chrono::microseconds kWholeFor{50};

const char* textOf(NamedObject::Kind kind) {
    switch (kind) {
        case NamedObject::Kind::Mutex:
            return "mutex";
        case NamedObject::Kind::Condition:
            return "condition";
        case NamedObject::Kind::Registry:
            break;
    }
    return "registry";
}

bool isPrivate(const struct stat& status) { return (status.st_mode & (S_IRWXG | S_IRWXO)) == 0; }

// Sizes a new object or one that was truncated, and reserves memory for any. One that is too small
// and not known here was not created by us and is left alone.
bool sizeObject(int fd, bool isKnown, struct stat& status) {
    const bool isSmall = status.st_size < static_cast<off_t>(NamedObject::kSize);
    if (isSmall && status.st_size != 0 && !isKnown) return true;
    return ftruncate_mac(fd, NamedObject::kSize) == 0 && fstat(fd, &status) == 0;
}

bool claimIdent(NamedObjectWords& words, std::uint64_t ident) {
    std::uint64_t found = 0;
    return words.ident.compare_exchange_strong(found, ident) || found == ident;
}

}  // namespace

// The mappings of this process. Never destroyed: handles may be released at any time during process
// exit.
struct NamedObject::Registry {
    static Registry& get() {
        static Registry* const registry = new Registry;
        return *registry;
    }

    // The lock is held across a fork, so that it is free in the child, and the map is intact.
    Registry() {
        pthread_atfork([]() NORVO_NO_THREAD_SAFETY_ANALYSIS { get().mutex.lock(); },
                       []() NORVO_NO_THREAD_SAFETY_ANALYSIS { get().mutex.unlock(); },
                       []() NORVO_NO_THREAD_SAFETY_ANALYSIS { get().mutex.unlock(); });
    }

    std::shared_ptr<NamedObject> find(const std::string& objectName, const Place& place) {
        LocalLock lock(mutex);
        const auto entry = objects.find(objectName);
        auto found = entry == objects.end() ? nullptr : entry->second.lock();
        lock.unlock();
        // The name may have been removed and recreated since. A differing object may have its last
        // reference here: its destructor takes the lock.
        return found && found->m_place == place ? found : nullptr;
    }

    // The mapping to use: `object`, or the one that another thread has added meanwhile.
    std::shared_ptr<NamedObject> add(std::shared_ptr<NamedObject> object) {
        std::shared_ptr<NamedObject> found;
        LocalLock lock(mutex);
        auto& entry = objects[object->m_objectName];
        found = entry.lock();
        if (found && found->m_place == object->m_place) return found;
        entry = object;
        return object;
    }

    // Not held while logging: at a fork it is taken after the logger's.
    LocalMutex mutex;
    std::map<std::string, std::weak_ptr<NamedObject>> objects NORVO_GUARDED_BY(mutex);
};

std::string NamedObject::objectName(Kind kind, const std::string& name) {
    return std::to_string(geteuid()) + '_' + textOf(kind) + '_' + name;
}

std::uint64_t NamedObject::identOf(Kind kind) {
    return kMagic << 32 | kLayoutVersion << 24 | static_cast<std::uint64_t>(kind) << 16 |
           kSize >> 4;
}

NamedObject::NamedObject(Kind kind, std::string name, std::string objectName, Place place,
                         void* memory)
    : m_kind(kind),
      m_name(std::move(name)),
      m_objectName(std::move(objectName)),
      m_place(place),
      m_words(static_cast<NamedObjectWords*>(memory)),
      m_wholeAt(WaitClock::now()) {}

NamedObject::~NamedObject() {
    munmap(m_words, kSize);
    Registry& registry = Registry::get();
    LocalLock lock(registry.mutex);
    const auto entry = registry.objects.find(m_objectName);
    if (entry != registry.objects.end() && entry->second.expired()) registry.objects.erase(entry);
}

std::shared_ptr<NamedObject> NamedObject::open(Kind kind, const char* name) {
    return openWith(kind, name, O_RDWR | O_CREAT);
}

std::shared_ptr<NamedObject> NamedObject::openExisting(Kind kind, const char* name) {
    return openWith(kind, name, O_RDWR);
}

void NamedObject::remove(Kind kind, const char* name) {
    if (isSharedMemoryRemovalSeen()) shm_unlink_mac(objectName(kind, name));
}

// Only a registry uses more than the first page.
bool NamedObject::isIntact(WaitClock::time_point now) const {
    const auto age = now - m_wholeAt.load(std::memory_order_relaxed);
    if (age >= WaitClock::duration::zero() && age < kWholeFor) return true;
    const auto* const bytes = reinterpret_cast<const char*>(m_words);
    const std::size_t last = m_kind == Kind::Registry ? kSize - sizeof(WaitWord) : 0;
    if (!isPresent(*reinterpret_cast<const WaitWord*>(bytes + last))) return false;
    m_wholeAt.store(now, std::memory_order_relaxed);
    return true;
}

bool NamedObject::isCurrent() const {
    if (!isSharedMemoryRemovalSeen()) return true;
    struct stat status;
    if (statusOfSharedMemory(m_objectName, status) &&
        m_place == Place{status.st_dev, status.st_ino}) {
        return true;
    }
    const FileDescriptor file(shm_open_mac(m_objectName, O_RDWR, 0));
    if (!file) return errno != ENOENT;
    return fstat(file.get(), &status) != 0 || m_place == Place{status.st_dev, status.st_ino};
}

std::shared_ptr<NamedObject> NamedObject::openWith(Kind kind, const char* name, int flags) {
    if (!name || !*name) {
        NORVO_LOG(Warning, "A named ", textOf(kind), " needs a name");
        return nullptr;
    }
    const std::string objectName = NamedObject::objectName(kind, name);
    const FileDescriptor file(shm_open_mac(objectName, flags, S_IRUSR | S_IWUSR));
    if (!file && errno == ENOENT && (flags & O_CREAT) == 0) return nullptr;
    if (!file) {
        const int error = errno;
        const std::string reason = std::strerror(error);
        const ObjectHolder holder = holderOfSharedMemory(objectName);
        NORVO_LOG(Error, "Cannot open named ", textOf(kind), ' ', name, ": ", reason,
                  holder.isForeign ? ", user " + std::to_string(holder.user) + " holds the name"
                                   : std::string());
        errno = error;
        return nullptr;
    }
    return map(kind, name, objectName, file.get());
}

std::shared_ptr<NamedObject> NamedObject::map(Kind kind, const std::string& name,
                                              const std::string& objectName, int fd) {
    struct stat status;
    const bool isThere = fstat(fd, &status) == 0;
    const Place place = isThere ? Place{status.st_dev, status.st_ino} : Place{};
    Registry& registry = Registry::get();
    auto known = isThere ? registry.find(objectName, place) : nullptr;
    if (!isThere || !sizeObject(fd, known != nullptr, status)) {
        const int error = errno;
        NORVO_LOG(Error, "Cannot size named ", textOf(kind), ' ', name, ": ", std::strerror(error));
        errno = error;
        return nullptr;
    }
    if (!isPrivate(status) || status.st_size < static_cast<off_t>(NamedObject::kSize)) {
        NORVO_LOG(Warning, "Refused named ", textOf(kind), ' ', name,
                  ": its object is open to other users or has the wrong size");
        errno = EACCES;
        return nullptr;
    }
    if (known) {
        known->m_wholeAt.store(WaitClock::now(), std::memory_order_relaxed);
        claimIdent(known->words(), identOf(kind));
        return known;
    }
    void* memory = mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (memory == MAP_FAILED) {
        const int error = errno;
        NORVO_LOG(Error, "Cannot map named ", textOf(kind), ' ', name, ": ", std::strerror(error));
        errno = error;
        return nullptr;
    }
    if (!claimIdent(*static_cast<NamedObjectWords*>(memory), identOf(kind))) {
        NORVO_LOG(Warning, "Refused named ", textOf(kind), ' ', name,
                  ": its object has another layout");
        munmap(memory, kSize);
        errno = EACCES;
        return nullptr;
    }
    std::unique_ptr<void, void (*)(void*)> mapping(memory, [](void* end) { munmap(end, kSize); });
    std::shared_ptr<NamedObject> object(new NamedObject(kind, name, objectName, place, memory));
    static_cast<void>(mapping.release());
    return registry.add(std::move(object));
}

}  // namespace VDIFrameworkCommon
