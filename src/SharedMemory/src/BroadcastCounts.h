#pragma once

#include <algorithm>
#include <limits>

#include "SegmentRegistry.h"
#include "SharedMemoryLayout.h"

namespace shared_memory {

// How the ends of a broadcast slot count its readers, in words of the segment's header.
//
// Offset 8 counts the readers that are ready for the next message: a reader adds 1 when it opens
// and when it has taken a message; the writer remembers the count, zeroes it with each message, and
// writes the next one when as many have taken it. So that an opening reader does not count as
// having taken the message, it also adds 1 to the chunk index; a closing reader subtracts itself
// from both words. The writer sets the index to 1 with each message, so the chunk index is 1 plus
// the readers that came minus those that left since the message was written. An end that does not
// do this is counted by offset 8 alone. Offset 24 counts the readers inside a read.
//
// All functions but the getters require the segment's mutex, unless noted.
class BroadcastCounts {
public:
    explicit BroadcastCounts(SharedMemoryHeader& header) : m_header(header) {}

    unsigned int ready() const { return static_cast<unsigned int>(m_header.lockWord2.load()); }
    // How many have taken the message in the slot. A reader changes two words one after the other:
    // without the mutex the result may be one too low, but never too high.
    unsigned int taken() const {
        const unsigned int ready = this->ready();
        return ready - (m_header.chunkIndex.load() - 1);
    }
    long inside() const { return m_header.readMessageId.load(); }

    void addReady() { m_header.lockWord2.fetch_add(1); }
    void addOneThatCame() {
        m_header.chunkIndex.fetch_add(1);
        m_header.lockWord2.fetch_add(1);
    }
    // Removes a reader that counted itself as ready after the message `countedAfterId`.
    void remove(long countedAfterId) {
        const long current = m_header.newMessageId;
        const bool isReady = countedAfterId == current;
        if (isReady) m_header.lockWord2.fetch_sub(1);
        if (isReady || countedAfterId == idBefore(current)) m_header.chunkIndex.fetch_sub(1);
    }
    // Reverts what an end whose process is gone has left: a reader's counts, a writer's lock.
    void remove(const RegistryEntry& gone) {
        if (!gone.is(SegmentRegistry::Role::Reader)) {
            m_header.writerLockCount = 0;
            return;
        }
        remove(gone.countedAfterId.load());
        if (gone.isInside.load() == 1) removeInside();
    }

    // May be called without the mutex.
    void addInside() { m_header.readMessageId.fetch_add(1); }
    // Not below 0: a writer that gave up waiting may have set it to 0 meanwhile.
    void removeInside() {
        long count = m_header.readMessageId;
        while (count > 0 && !m_header.readMessageId.compare_exchange_weak(count, count - 1)) {
        }
    }
    // Assumes that the readers inside are dead.
    void clearInside() { m_header.readMessageId.exchange(0); }

    // Changes the ID of the message in the slot; readers counted after it stay counted. False when
    // its ID is not `from`.
    bool moveId(SegmentRegistry& registry, long from, long to) {
        if (!m_header.newMessageId.compare_exchange_strong(from, to)) return false;
        registry.forEach([&](RegistryEntry& entry) {
            if (entry.is(SegmentRegistry::Role::Reader) && entry.countedAfterId == from) {
                entry.countedAfterId = to;
            }
        });
        return true;
    }
    // For a starting writer; sets the ID to 0. All registered readers count as ready, even those
    // that have not taken the previous message: the writer waits for them from its first message
    // on. Returns whether unregistered readers are ready.
    bool restart(SegmentRegistry& registry) {
        const long before = m_header.newMessageId.exchange(0);
        long known = 0;
        // The word may hold anything: the sums below must not overflow.
        long unknown = std::clamp(m_header.lockWord2.load(), 0L, kMostReaders);
        registry.forEach([&](RegistryEntry& entry) {
            if (!entry.is(SegmentRegistry::Role::Reader)) return;
            ++known;
            if (entry.countedAfterId == before) --unknown;
            entry.countedAfterId = 0;
        });
        if (unknown < 0) unknown = 0;
        m_header.lockWord2 = known + unknown;
        m_header.chunkIndex = 1;
        return unknown > 0;
    }

    // Wraps: the IDs in a segment may have any value.
    static long idBefore(long id) { return static_cast<long>(static_cast<unsigned long>(id) - 1); }

private:
    static constexpr long kMostReaders = std::numeric_limits<int>::max();

    SharedMemoryHeader& m_header;
};

}  // namespace shared_memory
