#pragma once

#include <string>

#include "LogRepeats.h"
#include "SegmentSlot.h"

namespace shared_memory {

// One of the readers of a broadcast slot. It remembers the last message ID that it has seen, and
// counts itself among the readers that are ready for the next message (BroadcastWriter.h has the
// rules of counting). Not thread-safe.
class BroadcastReader : public SlotEnd {
public:
    explicit BroadcastReader(SegmentSlot& slot) : m_slot(slot) {}

    // With the segment's mutex held: whether there is a message newer than the last one seen, which
    // it then is when `update` says so. Puts the ID of a writer that was set up anew back behind
    // the last one seen.
    bool advance(bool update);
    // Waits at most that long for advance(false).
    bool wait(std::chrono::milliseconds timeout);
    // Takes the newest message, which is then the last one seen. Empty, after a log line, when its
    // lengths cannot be right, or when its writer kept writing over it.
    std::string take();
    // To be called after a wait without a message. A count of ready readers of 0 without a message
    // to take would keep every writer out for good: the second look that finds that raises it
    // again.
    void stayCounted();

    // Counts this reader as being inside a read, and out again.
    void enterRead();
    void leaveRead();

    SegmentRegistry::Role role() const override { return SegmentRegistry::Role::Reader; }
    void begin(bool isRenewed) override;
    void leave() override;
    void forget(const RegistryEntry& gone) override;

private:
    enum class Copied { Whole, Invalid, Overtaken };

    Copied copy(std::string& message);
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
    // The one after which this reader counted itself as ready, unless the registry has that.
    long m_countedAfterId = 0;
    // The last look found the count to be 0 although this reader is counted.
    bool m_isCountLost = false;
    KLT::kltlogger::LogRepeats m_invalid;
    KLT::kltlogger::LogRepeats m_overtaken;
};

}  // namespace shared_memory
