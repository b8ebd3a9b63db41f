#pragma once

#include "LogRepeats.h"
#include "SegmentSlot.h"
#include "WritersLock.h"

namespace shared_memory {

// The writer of a plain slot: splits a message into chunks and places one after the other. Not
// thread-safe.
class SlotWriter : public SlotEnd {
public:
    explicit SlotWriter(SegmentSlot& slot) : m_slot(slot) {}

    // False when the slot was not free by `deadline`, or when a chunk has waited 2000 ms for it:
    // chunks already placed stay, and the reader drops them as a broken message. An empty message
    // is not sent; returns true.
    bool write(const void* data, unsigned int length,
               Clock::time_point deadline = Clock::time_point::max());
    // The same without waiting, for a message of one chunk of at most kMostAtOnce bytes. False,
    // with nothing sent, when the slot is not available at once.
    static constexpr unsigned int kMostAtOnce = 1024 * 1024;
    bool tryWrite(const void* data, unsigned int length);
    // Whether the slot is free: the reader has taken everything. False while the object is
    // truncated.
    bool isDrained() { return !m_slot.isMapped() || (!m_slot.isTruncated() && m_slot.isFree()); }

    SegmentRegistry::Role role() const override { return SegmentRegistry::Role::Writer; }
    void begin(bool isRenewed) override;
    void forget(const RegistryEntry& gone) override { WritersLock::forget(m_slot, gone); }

private:
    bool waitWritable(Clock::time_point now, Clock::time_point deadline);

    SegmentSlot& m_slot;
    KLT::kltlogger::LogRepeats m_tooLong;
    KLT::kltlogger::LogRepeats m_notTaken;
};

}  // namespace shared_memory
