#include "WritersLock.h"

#include <algorithm>
#include <utility>

#include "Log.h"

namespace shared_memory {

namespace {

constexpr unsigned int kLockIsDeadAfterMs = 2001;
constexpr unsigned int kLookEveryMs = 10;

bool release(SharedMemoryHeader& header, long lockedAt) {
    const bool isHeld = header.lockWord2.compare_exchange_strong(lockedAt, 0);
    if (isHeld) header.writerLockCount.fetch_sub(1);
    return isHeld;
}

}  // namespace

bool WritersLock::tryLock(unsigned int now) {
    Try result = Try::Again;
    while (result == Try::Again) result = tryOnce(now);
    if (result == Try::Locked) return true;
    if (now - m_lastLook >= kLookEveryMs) {
        m_lastLook = now;
        const SegmentSlot::Section section(m_slot);
        if (section) m_slot.forgetGone();
    }
    return false;
}

WritersLock::Try WritersLock::tryOnce(unsigned int now) {
    SharedMemoryHeader& header = m_slot.header();
    // Wraps like the word itself: another process may have left any value.
    const long before = header.writerLockCount.fetch_add(1);
    if (before > 0) {
        header.writerLockCount.fetch_sub(1);
        return Try::Busy;
    }
    if (before < 0) {
        // Locks were released twice: the attempts count back to 0, or reset a lower count at once.
        long count = before + 1;
        if (count < 0) header.writerLockCount.compare_exchange_strong(count, 0);
        return Try::Again;
    }
    m_lockedAt = std::max(1L, static_cast<long>(now));
    header.lockWord2 = m_lockedAt;
    noteInRegistry();
    return Try::Locked;
}

void WritersLock::unlock() {
    const long lockedAt = std::exchange(m_lockedAt, 0L);
    if (lockedAt == 0 || !m_slot.isMapped() || m_slot.isTruncated()) return;
    noteInRegistry();
    release(m_slot.header(), lockedAt);
}

void WritersLock::noteInRegistry() {
    if (auto* own = m_slot.registry().own()) own->since = m_lockedAt;
}

void WritersLock::forget(SegmentSlot& slot, const RegistryEntry& gone) {
    const long lockedAt = gone.since.load();
    if (!gone.is(SegmentRegistry::Role::Writer) || lockedAt == 0) return;
    if (release(slot.header(), lockedAt)) {
        NORVO_LOG(Notice, "Write lock of a dead writer released, stream: ", slot.name());
    }
}

void WritersLock::watch(unsigned int now, unsigned long chunksTaken, bool wasEmpty) {
    if (m_chunksSeen != chunksTaken) {
        m_chunksSeen = chunksTaken;
        m_lastChunkSeenAt = now;
    }
    if (wasEmpty && m_slot.isMapped() && !m_slot.isTruncated()) breakDeadLock(now);
}

void WritersLock::breakDeadLock(unsigned int now) {
    const long lockedAt = m_slot.header().lockWord2;
    if (lockedAt < 1) {
        clearLeftoverCount(now);
        return;
    }
    m_hasLeftoverCount = false;
    const bool isQuiet = m_chunksSeen == 0 || now - m_lastChunkSeenAt >= kLockIsDeadAfterMs;
    if (now - static_cast<unsigned int>(lockedAt) < kLockIsDeadAfterMs || !isQuiet) return;
    if (release(m_slot.header(), lockedAt)) {
        NORVO_LOG(Notice, "Write lock of a dead writer released, stream: ", m_slot.name());
    }
}

void WritersLock::clearLeftoverCount(unsigned int now) {
    SharedMemoryHeader& header = m_slot.header();
    long count = header.writerLockCount;
    if (count < 1 || !m_hasLeftoverCount) {
        m_hasLeftoverCount = count >= 1;
        m_leftoverSince = now;
        return;
    }
    if (now - m_leftoverSince < kLockIsDeadAfterMs) return;
    if (header.writerLockCount.compare_exchange_strong(count, 0)) {
        NORVO_LOG(Notice, "Write lock count left by dead writers cleared, stream: ", m_slot.name());
        m_hasLeftoverCount = false;
    }
}

}  // namespace shared_memory
