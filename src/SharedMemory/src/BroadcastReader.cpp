#include "BroadcastReader.h"

#include <algorithm>
#include <new>

#include "BroadcastCounts.h"
#include "Log.h"
#include "MessageAssembler.h"
#include "SharedMemoryUtilities.h"

namespace shared_memory {

namespace {

// How often a copy is repeated, after 1 ms, when its writer touches it.
constexpr int kCopies = 20;

}  // namespace

// A newly set-up writer has ID 0 until a reader restores the ID it has seen; a reader that opens
// meanwhile has missed the same messages as that one.
void BroadcastReader::begin(bool isRenewed) {
    const long current = m_slot.header().newMessageId;
    remember(isRenewed ? 0 : std::max(current, lastSeenByOthers()));
    m_since = m_lastSeenId;
    if (auto* own = m_slot.registry().own()) own->since = m_since;
    countAsOneThatCame();
    m_slot.notify(SegmentSlot::Signal::Taken);
}

long BroadcastReader::lastSeenByOthers() {
    long last = 0;
    m_slot.registry().forEachOther([&](const RegistryEntry& entry) {
        if (entry.is(SegmentRegistry::Role::Reader)) last = std::max(last, entry.lastSeenId.load());
    });
    return last;
}

void BroadcastReader::leave() {
    BroadcastCounts(m_slot.header()).remove(countedAfterId());
    m_slot.notify(SegmentSlot::Signal::Taken);
}

long BroadcastReader::countedAfterId() const {
    const auto* own = m_slot.registry().own();
    return own ? own->countedAfterId.load() : m_countedAfterId;
}

void BroadcastReader::forget(const RegistryEntry& gone) {
    BroadcastCounts(m_slot.header()).remove(gone);
}

void BroadcastReader::reenter() {
    auto* own = m_slot.registry().own();
    if (!own) return;
    own->lastSeenId = m_lastSeenId;
    own->countedAfterId = m_countedAfterId;
    own->since = m_since;
}

void BroadcastReader::remember(long lastSeenId) {
    m_lastSeenId = lastSeenId;
    if (auto* own = m_slot.registry().own()) own->lastSeenId = lastSeenId;
}

void BroadcastReader::rememberCount() {
    m_countedAfterId = m_slot.header().newMessageId;
    m_isCountLost = false;
    if (auto* own = m_slot.registry().own()) own->countedAfterId = m_countedAfterId;
}

void BroadcastReader::countAsOneThatCame() {
    BroadcastCounts(m_slot.header()).addOneThatCame();
    rememberCount();
}

bool BroadcastReader::advance(bool update) {
    const long current = m_slot.header().newMessageId;
    if (current == m_lastSeenId) return false;
    if (current > m_lastSeenId) {
        if (update) remember(current);
        return true;
    }
    // ID 0: the writer has not written yet. The ID before the last: restored by a reader that has
    // yet to take the last message. Either way the slot holds an old message.
    const bool isOld = current == 0 || (current > 1 && current == m_lastSeenId - 1);
    BroadcastCounts(m_slot.header()).moveId(m_slot.registry(), current, m_lastSeenId);
    return !isOld;
}

bool BroadcastReader::wait(std::chrono::milliseconds timeout) {
    const auto now = Clock::now();
    return m_slot.check(now) != SegmentSlot::Soundness::Lost &&
           m_slot.waitFor(SegmentSlot::Signal::Written, now, now + timeout,
                          [this] { return advance(false); });
}

bool BroadcastReader::enterRead() {
    if (m_slot.isTruncated()) return false;
    BroadcastCounts(m_slot.header()).addInside();
    if (auto* own = m_slot.registry().own()) own->isInside = 1;
    return true;
}

void BroadcastReader::leaveRead() {
    if (m_slot.isTruncated()) return;
    if (auto* own = m_slot.registry().own()) own->isInside = 0;
    BroadcastCounts(m_slot.header()).removeInside();
}

std::string BroadcastReader::take() {
    std::string message;
    if (!enterRead()) {
        logNotLocked();
        return message;
    }
    const long newest = m_slot.header().newMessageId;
    if (newest > m_lastSeenId) remember(newest);
    m_isCountLost = false;
    const Copied copied = copy(message);
    countAsReady();
    leaveRead();
    m_slot.notify(SegmentSlot::Signal::Taken);
    if (copied == Copied::Invalid) {
        NORVO_LOG_REPEATED(m_invalid, Warning, "Invalid message length!", m_slot.name());
    }
    if (copied == Copied::Overtaken) {
        NORVO_LOG_REPEATED(m_overtaken, Warning,
                           "A message was written over while it was read, stream: ", m_slot.name());
    }
    return copied == Copied::Whole ? message : std::string();
}

void BroadcastReader::logNotLocked() {
    if (m_slot.gate().isOpen()) {
        NORVO_LOG_REPEATED(m_notLocked, Error, "Failed to lock for reading!", m_slot.name());
    } else {  // closed meanwhile
        NORVO_LOG(Info, "Failed to lock for reading!", m_slot.name());
    }
}

// A writer that has given up on this reader may already be writing the next message.
BroadcastReader::Copied BroadcastReader::copy(std::string& message) {
    for (int attempt = 0; attempt < kCopies && !m_slot.isTruncated(); ++attempt) {
        const long id = m_slot.header().newMessageId;
        const std::uint64_t generation = m_slot.generation();
        const ChunkHeader chunk = ChunkHeader::load(m_slot.header());
        const bool mayFit = chunk.length <= MessageAssembler::kLongest;
        if (mayFit && chunk.length > m_slot.mappedCapacity()) m_slot.grow();
        const bool isValid =
            mayFit && chunk.total <= m_slot.mappedCapacity() && chunk.length == chunk.total;
        try {
            if (isValid) message.assign(m_slot.data(), chunk.length);
        } catch (const std::bad_alloc&) {
            return Copied::Invalid;
        }
        if (isUntouched(chunk, id, generation)) {
            remember(id);
            return isValid ? Copied::Whole : Copied::Invalid;
        }
        shared_memory::utilities::sleep(1);
    }
    return Copied::Overtaken;
}

// Our writers hold the mutex while writing; their lock adds nothing. Unregistered ones have only
// that lock.
bool BroadcastReader::isUntouched(const ChunkHeader& chunk, long id, std::uint64_t generation) {
    const SegmentSlot::Section section(m_slot);
    if (!section) return false;
    SharedMemoryHeader& header = m_slot.header();
    const bool isSame = header.newMessageId == id && m_slot.generation() == generation &&
                        header.messageLength == chunk.total && header.chunkLength == chunk.length;
    return isSame &&
           (header.writerLockCount < 1 || m_slot.registry().has(SegmentRegistry::Role::Writer));
}

// A reader that the writer did not wait for with this message counts like one that has just opened.
// A reader found late by a newly set-up writer is already counted.
void BroadcastReader::countAsReady() {
    const SegmentSlot::Section section(m_slot);
    if (!section || m_slot.header().newMessageId != m_lastSeenId) return;
    const long counted = countedAfterId();
    if (counted == m_lastSeenId) return;
    if (counted == BroadcastCounts::idBefore(m_lastSeenId)) {
        BroadcastCounts(m_slot.header()).addReady();
        rememberCount();
    } else {
        countAsOneThatCame();
    }
}

// Checked twice, because a third-party end may zero it a moment before it raises the ID.
void BroadcastReader::stayCounted() {
    if (!m_slot.isMapped() || m_slot.isTruncated()) return;
    SharedMemoryHeader& header = m_slot.header();
    const BroadcastCounts counts(header);
    if (counts.ready() != 0) {
        m_isCountLost = false;
        return;
    }
    const SegmentSlot::Section section(m_slot);
    if (!section || counts.ready() != 0 || header.newMessageId != m_lastSeenId) return;
    if (m_isCountLost) {
        countAsOneThatCame();
    } else {
        m_isCountLost = true;
    }
}

}  // namespace shared_memory
