#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "LogRepeats.h"
#include "MessageAssembler.h"
#include "SegmentSlot.h"
#include "WritersLock.h"

namespace shared_memory {

// The reader of a plain slot: takes chunks and joins them into messages. A message whose next chunk
// does not arrive in time is kept, and a later call continues it. Not thread-safe.
class SlotReader : public SlotEnd {
public:
    explicit SlotReader(SegmentSlot& slot) : m_slot(slot) {}

    // Waits for an unread chunk until `deadline`.
    bool wait(Clock::time_point deadline);
    // Takes the message whose chunk is waiting, with those chunks that follow within `silence` of
    // each other. Empty when no message was completed.
    std::string take(std::chrono::milliseconds silence);
    // Takes what is there without waiting for a first chunk.
    std::string takeNow(std::chrono::milliseconds silence);
    // Takes, without waiting, a message that is one chunk of at most `most` bytes. Empty when none
    // can be taken like that; what the slot holds then stays there.
    std::string takeAtOnce(std::uint32_t most);
    // How many chunks this reader has taken so far.
    unsigned long chunksTaken() const { return m_chunksTaken; }

    SegmentRegistry::Role role() const override { return SegmentRegistry::Role::Reader; }
    void begin(bool isRenewed) override;
    void forget(const RegistryEntry& gone) override { WritersLock::forget(m_slot, gone); }
    void leave() override { drop(); }

private:
    enum class Taken { Message, Part, Nothing };

    Taken takeChunk(std::string& message);
    MessageAssembler::Outcome add(const ChunkHeader& chunk);
    bool staysInSlot(MessageAssembler::Outcome outcome, const ChunkHeader& chunk);
    Taken judge(MessageAssembler::Outcome outcome, const ChunkHeader& chunk, std::string& message);
    bool hasUnread();
    void drop();

    SegmentSlot& m_slot;
    MessageAssembler m_assembler;
    unsigned long m_chunksTaken = 0;
    // Since when the first chunk in the slot has been left there for lack of memory.
    std::optional<Clock::time_point> m_lacksMemorySince;
    KLT::kltlogger::LogRepeats m_replaced;
    KLT::kltlogger::LogRepeats m_broken;
    KLT::kltlogger::LogRepeats m_invalid;
    KLT::kltlogger::LogRepeats m_noMemory;
};

}  // namespace shared_memory
