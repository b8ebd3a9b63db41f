// The shared-memory object behind a named mutex, condition or registry.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "ProcessIdentity.h"
#include "WaitOnAddress.h"

namespace VDIFrameworkCommon {

// What the object holds; the rest of its 16384 bytes is zero, or a registry's area. All-zero is a
// valid new object: the first process writes `ident` by one compare-and-swap, and nothing else
// needs initialising.
struct NamedObjectWords {
    // Magic, layout version, kind and size; see NamedObject::identOf.
    std::atomic<std::uint64_t> ident;

    // Mutex. The owner's identity, its user bit set when somebody may be waiting; 0 when free. Set
    // by the process that takes the lock, cleared by the owner, or by others once the owner is
    // gone.
    alignas(64) std::atomic<ProcessIdentity::Word> owner;
    // Counts the releases that found the user bit set; waiters sleep on it.
    WaitWord released;

    // Condition. Counts the notifications; waiters sleep on it. Written by each notifier.
    alignas(64) WaitWord sequence;
    // The highest `sequence` at which a waiter has gone to sleep; only raised, by waiters. A
    // notifier that finds a lower one has nobody to wake.
    std::atomic<std::uint64_t> parkedAt;
    // The process that notified last, and a different one that did so before it. Written by
    // notifiers, before `sequence`.
    std::atomic<ProcessIdentity::Word> notifier;
    std::atomic<ProcessIdentity::Word> earlierNotifier;
    // The processor it notified from, plus 1; 0 when not known.
    std::atomic<std::uint32_t> notifierCpu;
    // When the last notifier that had somebody to wake began to do so: ns of WaitClock. Only used
    // to measure wake-ups.
    std::atomic<std::int64_t> wokenAt;
};
static_assert(offsetof(NamedObjectWords, ident) == 0);
static_assert(offsetof(NamedObjectWords, owner) == 64);
static_assert(offsetof(NamedObjectWords, released) == 72);
static_assert(offsetof(NamedObjectWords, sequence) == 128);
static_assert(offsetof(NamedObjectWords, parkedAt) == 136);
static_assert(offsetof(NamedObjectWords, notifier) == 144);
static_assert(offsetof(NamedObjectWords, earlierNotifier) == 152);
static_assert(offsetof(NamedObjectWords, notifierCpu) == 160);
static_assert(offsetof(NamedObjectWords, wokenAt) == 168);
static_assert(sizeof(NamedObjectWords) <= 256);

// One mapping of such an object; all handles of a process on one name share it, and it is unmapped
// with the last of them. The object itself stays in the system.
class NamedObject {
public:
    enum class Kind : std::uint8_t { Mutex = 1, Condition = 2, Registry = 3 };

    // The largest page size of the supported systems.
    static constexpr std::size_t kSize = 16384;

    // Opens the object of that kind and name for this user and session namespace, creating it if
    // there is none. Null, after one log line, when the system refuses, or when the existing object
    // is another user's, open to others, or of another layout (EACCES); errno says why.
    static std::shared_ptr<NamedObject> open(Kind kind, const char* name);
    // The same without creating one: null, without a log line, when there is none.
    static std::shared_ptr<NamedObject> openExisting(Kind kind, const char* name);
    // Removes the object from the system. Existing handles keep their mapping, and a handle opened
    // later gets a new object. Does nothing where the system cannot tell the two apart (isCurrent()
    // below).
    static void remove(Kind kind, const char* name);
    ~NamedObject();
    NamedObject(const NamedObject&) = delete;
    NamedObject& operator=(const NamedObject&) = delete;

    // False when another process has truncated the object: touching it would then kill this one.
    // Ask when time may have passed since it was opened or last asked. One system call, unless the
    // last one was made less than 50 us before `now`. open() makes it whole again, with zeros.
    bool isIntact(WaitClock::time_point now) const;

    NamedObjectWords& words() { return *m_words; }
    const std::string& name() const { return m_name; }
    // A registry's data: kAreaSize bytes behind the words above.
    void* area() { return reinterpret_cast<char*>(m_words) + kAreaOffset; }
    static constexpr std::size_t kAreaOffset = 256;
    static constexpr std::size_t kAreaSize = kSize - kAreaOffset;

    // Whether the name still refers to this object, as far as the system tells. A removed object
    // neither excludes nor wakes newcomers.
    bool isCurrent() const;

    // How many handles of this process have notified and still exist.
    std::atomic<int> notifyingHandles{0};

    // The name passed to the shared-memory wrappers: the effective user ID, the kind, the name.
    static std::string objectName(Kind kind, const std::string& name);
    static std::uint64_t identOf(Kind kind);

private:
    struct Place {
        dev_t device;
        ino_t inode;
        bool operator==(const Place&) const = default;
    };
    struct Registry;

    NamedObject(Kind kind, std::string name, std::string objectName, Place place, void* memory);

    static std::shared_ptr<NamedObject> openWith(Kind kind, const char* name, int flags);
    static std::shared_ptr<NamedObject> map(Kind kind, const std::string& name,
                                            const std::string& objectName, int fd);

    const Kind m_kind;
    const std::string m_name;
    const std::string m_objectName;
    const Place m_place;
    NamedObjectWords* const m_words;
    // When it was last found whole.
    mutable std::atomic<WaitClock::time_point> m_wholeAt;
};

}  // namespace VDIFrameworkCommon
