#pragma once

#include <string>

#include "LogRepeats.h"
#include "SegmentSlot.h"

namespace shared_memory {

// One of the readers of a broadcast slot. It remembers the last message ID seen, and counts itself
// among the readers ready for the next message (BroadcastCounts.h has the counting rules). Not
// thread-safe.
class BroadcastReader : public SlotEnd {
public:
    explicit BroadcastReader(SegmentSlot& slot) : m_slot(slot) {}

    // With the segment's mutex held: whether there is a message newer than the last one seen;
    // `update` marks it as seen. Raises the ID of a newly set-up writer back to the last one seen.
    bool advance(bool update);
    // Waits up to `timeout` for advance(false).
    bool wait(std::chrono::milliseconds timeout);
    // Takes the newest message, which then counts as seen. Empty, after a log line, when its
    // lengths are invalid, when its writer kept overwriting it, or when enterRead() fails.
    std::string take();
    // Call it after a wait without a message. A count of 0 ready readers without a message to take
    // would block every writer for ever: the second look that finds that raises it again.
    void stayCounted();

    // Counts this reader as being inside a read, and as outside again. False, with nothing counted,
    // while the object is truncated.
    bool enterRead();
    void leaveRead();

    SegmentRegistry::Role role() const override { return SegmentRegistry::Role::Reader; }
    void begin(bool isRenewed) override;
    void leave() override;
    void forget(const RegistryEntry& gone) override;
    void reenter() override;

private:
    enum class Copied { Whole, Invalid, Overtaken };

    Copied copy(std::string& message);
    void logNotLocked();
    bool isUntouched(const ChunkHeader& chunk, long id, std::uint64_t generation);
    void countAsReady();
    void countAsOneThatCame();
    long lastSeenByOthers();
    void remember(long lastSeenId);
    void rememberCount();
    long countedAfterId() const;

    SegmentSlot& m_slot;
    // The last message ID seen.
    long m_lastSeenId = 0;
    // The ID after which this reader counted itself as ready; if the registry has it, that counts.
    long m_countedAfterId = 0;
    // The last message ID when it opened.
    long m_since = 0;
    // The last look found the count to be 0 although this reader is counted.
    bool m_isCountLost = false;
    KLT::kltlogger::LogRepeats m_notLocked;
    KLT::kltlogger::LogRepeats m_invalid;
    KLT::kltlogger::LogRepeats m_overtaken;
};

}  // namespace shared_memory
