#pragma once

#include "SegmentSlot.h"

namespace shared_memory {

// The writer of a broadcast slot: writes the next message when all readers have taken the one
// before. A reader that is gone without closing is not waited for when the registry shows that its
// process has ended; another one costs one wait: 2000 ms after the last message the writer goes on
// without it. Times are milliseconds of a monotonic clock, cut to 32 bits. Not thread-safe.
class BroadcastWriter : public SlotEnd {
public:
    explicit BroadcastWriter(SegmentSlot& slot) : m_slot(slot) {}

    // Readers that knew an earlier writer's IDs, and are not in the registry, are given 100 ms to
    // put them back in place.
    bool hasSettled(unsigned int now) const { return now - m_createdAt >= m_settleMs; }
    // One try to get the slot for the next message.
    bool tryLock(unsigned int now);
    void unlock();
    // Writes the message into the slot, which is locked, and unlocks it. False, and nothing has
    // changed, when the mutex could not be had.
    bool publish(const void* data, unsigned int length, unsigned int now);
    // A wait for readers to take the message: its begin, and again and again a step of 1 to 100 ms,
    // which a reader of ours ends. From 10 ms on, readers whose process is gone are taken out of
    // the counts.
    void beginWait(unsigned int now);
    void waitForReaders(unsigned int now);
    // The time, for begin(); to be set before the slot is opened.
    void setTime(unsigned int now) { m_createdAt = now; }

    SegmentRegistry::Role role() const override { return SegmentRegistry::Role::Writer; }
    void begin(bool isRenewed) override;
    void forget(const RegistryEntry& gone) override;

private:
    bool isGranted(unsigned int now);
    bool isTakenByAll();
    // Writing although not every reader has taken the last message; not into a reader's copy,
    // unless that reader has not moved for a while.
    bool isGrantedLate(unsigned int now, bool isReaderInside);

    SegmentSlot& m_slot;
    unsigned int m_lastWriteTime = 0;
    unsigned int m_readersAtLastWrite = 0;
    unsigned int m_createdAt = 0;
    unsigned int m_settleMs = 0;
    // The next message is the first since the start.
    bool m_isFirst = true;
    // When the registry was looked at last, or the wait began.
    unsigned int m_lastLook = 0;
    unsigned int m_pauseMs = 0;
    // Since when a late write has been kept waiting by a reader inside a read.
    bool m_isHeldUp = false;
    unsigned int m_heldUpSince = 0;
};

// Puts a message into a broadcast slot, with the mutex held: the words that a reader would judge it
// by show, while the message is being written, that there is none.
void storeBroadcast(SegmentSlot& slot, const void* data, unsigned int length);

}  // namespace shared_memory
