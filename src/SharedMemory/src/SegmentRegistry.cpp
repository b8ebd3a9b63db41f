#include "SegmentRegistry.h"

#include "NamedObject.h"

namespace shared_memory {

using VDIFrameworkCommon::NamedObject;
using VDIFrameworkCommon::ProcessIdentity;

static_assert(sizeof(RegistryEntry) * SegmentRegistry::kEntries <= NamedObject::kAreaSize);

SegmentRegistry::~SegmentRegistry() { close(); }

bool SegmentRegistry::open(const std::string& name) {
    close();
    m_object = NamedObject::open(NamedObject::Kind::Registry, name.c_str());
    if (m_object) m_entries = static_cast<Entries*>(m_object->area());
    return m_object != nullptr;
}

bool SegmentRegistry::openExisting(const std::string& name) {
    close();
    m_object = NamedObject::openExisting(NamedObject::Kind::Registry, name.c_str());
    if (m_object) m_entries = static_cast<Entries*>(m_object->area());
    return m_object != nullptr;
}

void SegmentRegistry::close() {
    leave();
    m_entries = nullptr;
    m_object.reset();
}

bool SegmentRegistry::isIntact(std::chrono::steady_clock::time_point now) const {
    if (m_object && !m_object->isIntact(now)) return false;
    return !m_own || (m_own->process.load() == ProcessIdentity::own() && m_own->is(m_role));
}

bool SegmentRegistry::isCurrent() const { return !m_object || m_object->isCurrent(); }

void SegmentRegistry::enter(Role role) {
    leave();
    m_role = role;
    if (!m_entries) return;
    for (RegistryEntry& entry : *m_entries) {
        ProcessIdentity::Word free = 0;
        if (!entry.process.compare_exchange_strong(free, ProcessIdentity::own())) continue;
        entry.role = static_cast<std::uint32_t>(role);
        entry.lastSeenId = 0;
        entry.countedAfterId = 0;
        entry.since = 0;
        entry.isInside = 0;
        m_own = &entry;
        return;
    }
}

// A forked child has a copy of this object, but the entry is its parent's.
void SegmentRegistry::leave() {
    ProcessIdentity::Word own = ProcessIdentity::own();
    if (m_own && isIntact(std::chrono::steady_clock::now()))
        m_own->process.compare_exchange_strong(own, 0);
    m_own = nullptr;
}

bool SegmentRegistry::isGone(const RegistryEntry& entry) {
    return ProcessIdentity::isGone(entry.process.load());
}

bool SegmentRegistry::has(Role role) {
    bool found = false;
    forEachOther([&](const RegistryEntry& entry) { found = found || entry.is(role); });
    return found;
}

pid_t SegmentRegistry::livingProcessOf(Role role) {
    pid_t found = 0;
    forEachOther([&](const RegistryEntry& entry) {
        if (entry.is(role) && !isGone(entry)) found = ProcessIdentity::pid(entry.process.load());
    });
    return found;
}

bool SegmentRegistry::hasLivingProcess(bool exceptOwn) {
    bool found = false;
    forEachOther([&](const RegistryEntry& entry) {
        const bool isExcepted = exceptOwn && entry.process.load() == ProcessIdentity::own();
        found = found || (!isExcepted && !isGone(entry));
    });
    return found;
}

}  // namespace shared_memory
