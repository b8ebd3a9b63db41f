#pragma once

#include "SegmentSlot.h"

namespace shared_memory {

// The lock that several writers of one slot take for the duration of a message: the writer lock
// count, with the time it was taken in lock word 2. Times are milliseconds of a monotonic clock,
// truncated to 32 bits. Not thread-safe.
class WritersLock {
public:
    explicit WritersLock(SegmentSlot& slot) : m_slot(slot) {}

    // One attempt. From 10 ms after beginWait(), a lock whose owner's process is gone is released
    // first.
    void beginWait(unsigned int now) { m_lastLook = now; }
    bool tryLock(unsigned int now);
    // Releases what this object holds, unless the lock was broken meanwhile.
    void unlock();
    // Releases the lock of a writer whose process is gone.
    static void forget(SegmentSlot& slot, const RegistryEntry& gone);

    // For the reader, after each read: breaks a lock that is 2001 ms old, unless chunks arrived in
    // that time, and clears a count that stayed above 0 that long without a lock time.
    void watch(unsigned int now, unsigned long chunksTaken, bool wasEmpty);

private:
    enum class Try { Locked, Again, Busy };

    Try tryOnce(unsigned int now);
    void breakDeadLock(unsigned int now);
    void clearLeftoverCount(unsigned int now);
    void noteInRegistry();

    SegmentSlot& m_slot;
    // The value this writer has put into the lock word; 0 when it does not hold the lock.
    long m_lockedAt = 0;
    unsigned int m_lastLook = 0;

    // For the reader: how many chunks had arrived, and when it last saw more.
    unsigned long m_chunksSeen = 0;
    unsigned int m_lastChunkSeenAt = 0;
    // A count that stays above 0 without a time was left by writers that died while taking the
    // lock.
    bool m_hasLeftoverCount = false;
    unsigned int m_leftoverSince = 0;
};

}  // namespace shared_memory
