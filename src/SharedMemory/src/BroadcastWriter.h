#pragma once

#include <optional>

#include "SegmentSlot.h"

namespace shared_memory {

// The writer of a broadcast slot: writes the next message when all readers have taken the previous
// one. It does not wait for a reader whose process has ended according to the registry. Any other
// reader that has gone without closing costs one wait: 2000 ms after the last message the writer
// continues without it. Times are milliseconds of a monotonic clock, truncated to 32 bits. Not
// thread-safe.
class BroadcastWriter : public SlotEnd {
public:
    explicit BroadcastWriter(SegmentSlot& slot) : m_slot(slot) {}

    // Unregistered readers that knew an earlier writer's IDs get 100 ms to restore them.
    bool hasSettled(unsigned int now) const { return now - m_createdAt >= m_settleMs; }
    // Whether there is no reader that could take a message, and was none for the last one.
    bool isAlone() const;
    // One attempt to lock the slot for the next message.
    bool tryLock(unsigned int now);
    void unlock();
    // Writes the message into the locked slot and unlocks it. False, with nothing changed, when the
    // mutex could not be locked.
    bool publish(const void* data, unsigned int length, unsigned int now);
    // A wait for readers to take the message: first beginWait(), then repeated steps of 1 to 100
    // ms, each ended early by a reader of ours. From 10 ms on, readers whose process is gone are
    // removed from the counts.
    void beginWait(unsigned int now);
    void waitForReaders(unsigned int now);
    // The time for begin(); set it before the slot is opened.
    void setTime(unsigned int now) { m_createdAt = now; }

    SegmentRegistry::Role role() const override { return SegmentRegistry::Role::Writer; }
    void begin(bool isRenewed) override;
    void forget(const RegistryEntry& gone) override;

private:
    bool isGranted(unsigned int now);
    bool isTakenByAll();
    // Whether to write although not every reader has taken the last message; not while a reader
    // copies, unless that reader has been stuck for a while.
    bool isGrantedLate(unsigned int now, bool isReaderInside);

    SegmentSlot& m_slot;
    unsigned int m_lastWriteTime = 0;
    unsigned int m_readersAtLastWrite = 0;
    unsigned int m_createdAt = 0;
    unsigned int m_settleMs = 0;
    // The ID of this writer's last message. The segment has another one after the start of another
    // writer, which sets it to 0, or that writer's message.
    std::optional<long> m_lastId;
    // When the registry was last checked, or the wait began.
    unsigned int m_lastLook = 0;
    unsigned int m_lookEveryMs = 0;
    unsigned int m_pauseMs = 0;
    // Since when a reader inside a read has held up a late write.
    bool m_isHeldUp = false;
    unsigned int m_heldUpSince = 0;
};

// Puts a message into a broadcast slot, with the mutex held. While it is being written, the words
// that a reader checks show no message.
void storeBroadcast(SegmentSlot& slot, const void* data, unsigned int length);

}  // namespace shared_memory
