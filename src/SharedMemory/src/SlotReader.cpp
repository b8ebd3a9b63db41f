#include "SlotReader.h"

#include <algorithm>

#include "Log.h"

namespace shared_memory {

namespace {

// How often a chunk is copied again when a writer was newly set up meanwhile.
constexpr int kCopies = 3;
// Longer than the 2000 ms after which a writer gives up on its next chunk.
constexpr std::chrono::milliseconds kLeftForLackOfMemory{3000};

}  // namespace

void SlotReader::begin(bool isRenewed) {
    m_assembler.drop();
    if (!isRenewed) m_slot.header().readMessageId = m_slot.header().newMessageId.load();
}

bool SlotReader::wait(Clock::time_point deadline) {
    const auto now = Clock::now();
    return m_slot.check(now) != SegmentSlot::Soundness::Lost &&
           m_slot.waitFor(SegmentSlot::Signal::Written, now, deadline,
                          [this] { return m_slot.isUnread(); });
}

std::string SlotReader::take(std::chrono::milliseconds silence) {
    std::string message;
    while (takeChunk(message) == Taken::Part && wait(Clock::now() + silence)) {
    }
    if (!m_slot.gate().isOpen()) drop();
    return message;
}

std::string SlotReader::takeNow(std::chrono::milliseconds silence) {
    const bool waits = m_slot.check(Clock::now()) != SegmentSlot::Soundness::Lost && hasUnread();
    if (waits || (m_assembler.inProgress() && wait(Clock::now() + silence))) return take(silence);
    return {};
}

std::string SlotReader::takeAtOnce(std::uint32_t most) {
    if (m_assembler.inProgress() || !m_slot.isUnreadAtOnce()) return {};
    const ChunkHeader chunk = ChunkHeader::load(m_slot.header());
    const bool isWholeMessage = chunk.count == 1 && chunk.index == 1 && chunk.length == chunk.total;
    if (!isWholeMessage || chunk.length > std::min(most, m_slot.mappedCapacity())) return {};
    std::string message(m_slot.data(), chunk.length);
    if (!m_slot.take(std::chrono::milliseconds::zero())) return {};
    ++m_chunksTaken;
    return message;
}

bool SlotReader::hasUnread() {
    const SegmentSlot::Section section(m_slot);
    return section && m_slot.isUnread();
}

SlotReader::Taken SlotReader::takeChunk(std::string& message) {
    for (int copy = 0; copy < kCopies; ++copy) {
        const ChunkHeader chunk = ChunkHeader::load(m_slot.header());
        const bool replaces = chunk.index == 1 && m_assembler.inProgress();
        const auto outcome = add(chunk);
        if (replaces)
            NORVO_LOG_REPEATED(m_replaced, Warning, "Previous message is broken!", m_slot.name());
        if (staysInSlot(outcome, chunk) || m_slot.take()) return judge(outcome, chunk, message);
        m_assembler.retract();
        if (!hasUnread()) break;
    }
    NORVO_LOG_REPEATED(m_broken, Warning, "Receiving broken message", m_slot.name());
    m_assembler.drop();
    return Taken::Nothing;
}

MessageAssembler::Outcome SlotReader::add(const ChunkHeader& chunk) {
    const bool isLonger = chunk.length > m_slot.mappedCapacity();
    if (isLonger && m_slot.grow() == SegmentMapping::Growth::Refused) {
        m_assembler.drop();
        return MessageAssembler::Outcome::NoMemory;
    }
    return m_assembler.add(chunk, m_slot.data(), m_slot.mappedCapacity());
}

// A later chunk left in the slot is dropped as a stray; a first one never would be. One that there
// is no memory for is left only until its writer has reported the failure: the next message must
// get through.
bool SlotReader::staysInSlot(MessageAssembler::Outcome outcome, const ChunkHeader& chunk) {
    const bool lacksMemory = outcome == MessageAssembler::Outcome::NoMemory;
    if (chunk.index != 1) return lacksMemory || outcome == MessageAssembler::Outcome::BadLength;
    const auto now = lacksMemory ? Clock::now() : Clock::time_point();
    if (lacksMemory && !m_lacksMemorySince) m_lacksMemorySince = now;
    if (lacksMemory && now - *m_lacksMemorySince < kLeftForLackOfMemory) return true;
    m_lacksMemorySince.reset();
    return false;
}

SlotReader::Taken SlotReader::judge(MessageAssembler::Outcome outcome, const ChunkHeader& chunk,
                                    std::string& message) {
    if (outcome != MessageAssembler::Outcome::NoMemory) ++m_chunksTaken;
    switch (outcome) {
        case MessageAssembler::Outcome::Incomplete:
            return Taken::Part;
        case MessageAssembler::Outcome::Complete:
            message = m_assembler.take();
            return Taken::Message;
        case MessageAssembler::Outcome::Stray:
            NORVO_LOG_REPEATED(m_broken, Warning, "Receiving broken message", m_slot.name());
            break;
        case MessageAssembler::Outcome::NoMemory:
            NORVO_LOG_REPEATED(m_noMemory, Error, "No memory for a message of ", chunk.total,
                               " bytes, stream: ", m_slot.name());
            break;
        case MessageAssembler::Outcome::BadLength:
            NORVO_LOG_REPEATED(m_invalid, Warning, "Invalid message length. Dismiss message.",
                               m_slot.name(), ": ", chunk.length, " of ", chunk.total,
                               " bytes where ", m_slot.mappedCapacity(), " fit");
            break;
    }
    return Taken::Nothing;
}

void SlotReader::drop() {
    if (!m_assembler.inProgress()) return;
    NORVO_LOG(Warning, "The message is not received in full.", m_slot.name());
    m_assembler.drop();
}

}  // namespace shared_memory
