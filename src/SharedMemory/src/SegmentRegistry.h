#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "ProcessIdentity.h"

namespace VDIFrameworkCommon {
class NamedObject;
}

namespace shared_memory {

// One end of a segment that a process has open, as recorded in shared memory. Changed under the
// segment's mutex by the process it names, or by others once that process is gone. Nothing read
// from here is trusted.
struct RegistryEntry {
    enum class Role : std::uint32_t { Writer = 1, Reader = 2 };
    bool is(Role which) const { return role.load() == static_cast<std::uint32_t>(which); }

    // The process; 0 while the entry is free.
    std::atomic<VDIFrameworkCommon::ProcessIdentity::Word> process;
    // Broadcast reader: the ID of the last message seen, and the one after which it counted itself
    // as ready; other ends change the latter when they change the segment's ID without a message.
    std::atomic<long> lastSeenId;
    std::atomic<long> countedAfterId;
    // Broadcast reader: the last message ID when it opened; of requests, a writer raises it to that
    // of one which the reader has left. One of several writers: the value it has put into the lock
    // word, 0 while it does not hold the lock.
    std::atomic<long> since;
    std::atomic<std::uint32_t> role;
    // Broadcast reader: 1 while it is counted among those inside a read.
    std::atomic<std::uint32_t> isInside;
};
static_assert(sizeof(RegistryEntry) == 40);

// Who has a segment open: a small named object beside the segment, by which one end can tell
// whether another that does not answer still lives. Third-party ends do not register. Without the
// object all operations do nothing. Not thread-safe; all but open() require the segment's mutex.
class SegmentRegistry {
public:
    using Role = RegistryEntry::Role;
    static constexpr std::size_t kEntries = 403;

    SegmentRegistry() = default;
    ~SegmentRegistry();
    SegmentRegistry(const SegmentRegistry&) = delete;
    SegmentRegistry& operator=(const SegmentRegistry&) = delete;

    // Opens the registry of segment `name`, which includes the client-type prefix
    // (SegmentMapping::prefixed). openExisting() does not create one.
    bool open(const std::string& name);
    bool openExisting(const std::string& name);
    void close();
    // False when this end is no longer entered, or when another process has truncated the object:
    // touching it would then kill this one. To be asked like NamedObject::isIntact.
    bool isIntact(std::chrono::steady_clock::time_point now) const;
    // Whether its name still refers to it, as far as the system tells.
    bool isCurrent() const;

    // Takes a free entry for this end. When kEntries ends are open there is none, and the others do
    // not know about this one.
    void enter(Role role);
    void leave();
    // Null unless entered.
    RegistryEntry* own() const { return m_own; }

    // Calls `forget` with each entry of a process that is gone, and frees it; only those of one
    // role if that is given. True if there was one. Some 10 us for each living process.
    template <class Forget>
    bool removeGone(const Forget& forget, std::optional<Role> role) {
        bool any = false;
        forEachOther([&](RegistryEntry& entry) {
            if ((role && !entry.is(*role)) || !isGone(entry)) return;
            forget(std::as_const(entry));
            entry.process = 0;
            any = true;
        });
        return any;
    }
    // Whether another end is registered in that role.
    bool has(Role role);
    // The living process of such an end; 0 when there is none.
    pid_t livingProcessOf(Role role);
    bool hasLiving(Role role) { return livingProcessOf(role) != 0; }
    bool hasLivingProcess(bool exceptOwn);
    // Calls `action` with each entry in use that is not this end's.
    template <class Action>
    void forEachOther(const Action& action) {
        forEach([&](RegistryEntry& entry) {
            if (&entry != m_own) action(entry);
        });
    }
    template <class Action>
    void forEach(const Action& action) {
        if (!m_entries) return;
        for (RegistryEntry& entry : *m_entries)
            if (entry.process.load() != 0) action(entry);
    }

private:
    using Entries = std::array<RegistryEntry, kEntries>;

    static bool isGone(const RegistryEntry& entry);

    std::shared_ptr<VDIFrameworkCommon::NamedObject> m_object;
    Entries* m_entries = nullptr;
    RegistryEntry* m_own = nullptr;
    Role m_role = Role::Reader;
};

}  // namespace shared_memory
