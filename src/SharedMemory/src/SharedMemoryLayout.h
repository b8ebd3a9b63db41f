// The layout of a segment. Third-party programs map the same objects: it is a wire format.
//
//   offset width  field               written by
//        0  8     writer lock count   the variants' writers (and a multiple-writers reader that
//                                     breaks a dead writer's lock)
//        8  8     lock word 2         multiple writers: time of the lock, by the lock's holder;
//                                     broadcast: readers ready for the next message, added to by
//                                     readers, zeroed by the writer
//       16  8     new message ID      the writer, after each chunk
//       24  8     read message ID     the reader, after each chunk; broadcast: count of readers
//                                     inside a read, by readers
//       32  4     chunk count         the writer, while the slot is free
//       36  4     chunk index         the same; broadcast: see BroadcastCounts.h
//       40  4     message length      the same
//       44  4     chunk length        the same
//       48  C     data area           the same
//
// Byte order: the machine's. A new segment is all zero. Nothing read from here is trusted.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace shared_memory {

// Prefix of the names of a segment's mutex and conditions; the segment's name follows.
inline constexpr char kSegmentObjectPrefix[] = "ED992248_";
inline constexpr char kReadConditionSuffix[] = "_read_condition";
inline constexpr char kWriteConditionSuffix[] = "_write_condition";

using SharedWord = std::atomic<long>;
using SharedCount = std::atomic<std::uint32_t>;

struct SharedMemoryHeader {
    SharedWord writerLockCount;
    SharedWord lockWord2;
    SharedWord newMessageId;
    SharedWord readMessageId;
    SharedCount chunkCount;
    SharedCount chunkIndex;
    SharedCount messageLength;
    SharedCount chunkLength;
};

static_assert(std::is_standard_layout_v<SharedMemoryHeader>);
static_assert(SharedWord::is_always_lock_free && sizeof(SharedWord) == 8);
static_assert(SharedCount::is_always_lock_free && sizeof(SharedCount) == 4);
static_assert(offsetof(SharedMemoryHeader, writerLockCount) == 0);
static_assert(offsetof(SharedMemoryHeader, lockWord2) == 8);
static_assert(offsetof(SharedMemoryHeader, newMessageId) == 16);
static_assert(offsetof(SharedMemoryHeader, readMessageId) == 24);
static_assert(offsetof(SharedMemoryHeader, chunkCount) == 32);
static_assert(offsetof(SharedMemoryHeader, chunkIndex) == 36);
static_assert(offsetof(SharedMemoryHeader, messageLength) == 40);
static_assert(offsetof(SharedMemoryHeader, chunkLength) == 44);
static_assert(sizeof(SharedMemoryHeader) == 48);

// A private copy of the chunk words: each is read once, then checked, then used.
struct ChunkHeader {
    std::uint32_t count = 0;   // chunks of the whole message
    std::uint32_t index = 0;   // this one, from 1
    std::uint32_t total = 0;   // bytes of the whole message
    std::uint32_t length = 0;  // bytes of this chunk

    static ChunkHeader load(const SharedMemoryHeader& header) {
        constexpr auto order = std::memory_order_relaxed;
        return {header.chunkCount.load(order), header.chunkIndex.load(order),
                header.messageLength.load(order), header.chunkLength.load(order)};
    }
    void store(SharedMemoryHeader& header) const {
        constexpr auto order = std::memory_order_relaxed;
        header.chunkCount.store(count, order);
        header.chunkIndex.store(index, order);
        header.messageLength.store(total, order);
        header.chunkLength.store(length, order);
    }
};

}  // namespace shared_memory
