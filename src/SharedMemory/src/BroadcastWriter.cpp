#include "BroadcastWriter.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "BroadcastCounts.h"

namespace shared_memory {

namespace {

constexpr unsigned int kReaderIsGoneAfterMs = 2000;
constexpr unsigned int kReaderInsideIsGoneAfterMs = 500;
constexpr unsigned int kReadersSettleMs = 100;
// Looks take at most a tenth of the time: readers need the mutex, too.
constexpr unsigned int kLookEveryMs = 10;
constexpr unsigned int kLookShare = 10;
// A reader that opens, leaves or takes a message wakes the writer; a third-party reader that does
// not is found by polling, less and less often.
constexpr unsigned int kFirstPauseMs = 1;
constexpr unsigned int kLongestPauseMs = 10;
constexpr unsigned int kLongestPauseForNobodyMs = 100;

// Readers that have seen another writer's message accept the next one as new only with a higher ID.
void raiseIdAboveReaders(SegmentSlot& slot) {
    const long current = slot.header().newMessageId;
    long last = current;
    slot.registry().forEachOther([&](const RegistryEntry& entry) {
        if (entry.is(SegmentRegistry::Role::Reader)) last = std::max(last, entry.lastSeenId.load());
    });
    if (last > current && last < std::numeric_limits<long>::max()) {
        BroadcastCounts(slot.header()).moveId(slot.registry(), current, last);
    }
}

}  // namespace

// The ID is set before the count: a writer that dies in between leaves a message that the readers
// answer, not a count of 0 that blocks the next writer.
void storeBroadcast(SegmentSlot& slot, const void* data, unsigned int length) {
    SharedMemoryHeader& header = slot.header();
    header.messageLength = std::numeric_limits<std::uint32_t>::max();
    std::atomic_thread_fence(std::memory_order_seq_cst);
    std::memcpy(slot.data(), data, length);
    ChunkHeader{1, 1, length, length}.store(header);
    header.newMessageId.fetch_add(1);
}

void BroadcastWriter::begin(bool isRenewed) {
    SharedMemoryHeader& header = m_slot.header();
    m_settleMs = 0;
    if (!isRenewed) {
        const bool isFirst = header.newMessageId == 0;
        const bool areUnknown = BroadcastCounts(header).restart(m_slot.registry());
        if (areUnknown && !isFirst) m_settleMs = kReadersSettleMs;
        header.readMessageId = 0;
    }
    header.writerLockCount = 0;
    m_lastWriteTime = m_createdAt - kReaderIsGoneAfterMs - 1;
    m_readersAtLastWrite = 0;
    m_lastId.reset();
    m_isHeldUp = false;
}

void BroadcastWriter::forget(const RegistryEntry& gone) {
    BroadcastCounts(m_slot.header()).remove(gone);
}

bool BroadcastWriter::isAlone() const {
    return BroadcastCounts(m_slot.header()).ready() == 0 && m_readersAtLastWrite == 0;
}

bool BroadcastWriter::tryLock(unsigned int now) {
    m_slot.header().writerLockCount.fetch_add(1);
    if (isGranted(now)) return true;
    unlock();
    return false;
}

void BroadcastWriter::unlock() {
    if (!m_slot.isTruncated()) m_slot.header().writerLockCount.fetch_sub(1);
}

bool BroadcastWriter::isGranted(unsigned int now) {
    BroadcastCounts counts(m_slot.header());
    const long inside = counts.inside();
    if (inside >= 2) {
        if (now - m_lastWriteTime <= kReaderIsGoneAfterMs) return false;
        counts.clearInside();
        return true;
    }
    if (isAlone()) return false;
    return isTakenByAll() || (!m_slot.isTruncated() && isGrantedLate(now, inside == 1));
}

// A reader that opens or closes changes two words, one after the other: a match counts only under
// the mutex, which it holds meanwhile.
bool BroadcastWriter::isTakenByAll() {
    const BroadcastCounts counts(m_slot.header());
    if (counts.taken() != m_readersAtLastWrite) return false;
    const SegmentSlot::Section section(m_slot);
    return section && counts.taken() == m_readersAtLastWrite;
}

bool BroadcastWriter::isGrantedLate(unsigned int now, bool isReaderInside) {
    if (now - m_lastWriteTime <= kReaderIsGoneAfterMs) return false;
    if (isReaderInside && !m_isHeldUp) m_heldUpSince = now;
    m_isHeldUp = isReaderInside;
    if (!isReaderInside) return true;
    if (now - m_heldUpSince < kReaderInsideIsGoneAfterMs) return false;
    BroadcastCounts(m_slot.header()).clearInside();
    m_isHeldUp = false;
    return true;
}

// Count, index and ID change in one critical section, so that an opening reader is either counted
// and sees the message, or neither.
bool BroadcastWriter::publish(const void* data, unsigned int length, unsigned int now) {
    {
        const SegmentSlot::Section section(m_slot);
        if (!section) {
            unlock();
            return false;
        }
        const SharedWord& id = m_slot.header().newMessageId;
        if (m_lastId != id) raiseIdAboveReaders(m_slot);
        storeBroadcast(m_slot, data, length);
        m_lastId = id;
        m_readersAtLastWrite = static_cast<unsigned int>(m_slot.header().lockWord2.exchange(0));
        m_lastWriteTime = now;
        m_isHeldUp = false;
        unlock();
    }
    m_slot.notify(SegmentSlot::Signal::Written);
    return true;
}

void BroadcastWriter::beginWait(unsigned int now) {
    m_lastLook = now;
    m_lookEveryMs = kLookEveryMs;
    m_pauseMs = kFirstPauseMs;
}

void BroadcastWriter::waitForReaders(unsigned int now) {
    m_slot.pause(SegmentSlot::Signal::Taken, m_pauseMs);
    if (m_slot.isTruncated()) return;
    const bool isNobodyThere =
        BroadcastCounts(m_slot.header()).ready() == 0 && m_readersAtLastWrite == 0;
    m_pauseMs = std::min(2 * m_pauseMs, isNobodyThere ? kLongestPauseForNobodyMs : kLongestPauseMs);
    if (now - m_lastLook < m_lookEveryMs) return;
    m_lastLook = now;
    const SegmentSlot::Section section(m_slot);
    const auto begun = Clock::now();
    if (section) m_slot.forgetGone();
    const auto took = std::chrono::ceil<std::chrono::milliseconds>(Clock::now() - begun);
    m_lookEveryMs = std::max(kLookEveryMs, kLookShare * static_cast<unsigned int>(took.count()));
}

}  // namespace shared_memory
