#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "SharedMemoryLayout.h"

namespace shared_memory {

// Joins the chunks of one message. Trusts nothing in a chunk header: no byte outside the data area
// is read, and memory beyond 64 MiB is only allocated as bytes arrive. Not thread-safe.
class MessageAssembler {
public:
    enum class Outcome {
        Incomplete,  // taken; more chunks must follow
        Complete,    // taken; take() has the message
        Stray,       // neither a first chunk nor the expected one; what was begun is dropped
        BadLength,   // its lengths are invalid; what was begun is dropped
        NoMemory,    // out of memory; what was begun is dropped
    };

    // `data` is the slot's area of `capacity` bytes. A first chunk drops what was begun before.
    Outcome add(const ChunkHeader& chunk, const char* data, std::uint32_t capacity);

    // A first chunk was taken and the message is not complete.
    bool inProgress() const { return m_nextIndex > 1; }
    // The complete message.
    std::string take();
    // Also frees the memory.
    void drop();
    // Removes the last added chunk: its source changed while it was copied. What it replaced or
    // refused does not come back.
    void retract();

    // The longest message, in bytes. A longer one is refused at both ends.
    static constexpr std::uint32_t kLongest = 512U << 20U;

private:
    bool begin(const ChunkHeader& chunk, std::uint32_t capacity);
    bool append(const ChunkHeader& chunk, const char* data);
    Outcome refuse(Outcome outcome);

    std::string m_message;
    std::uint32_t m_total = 0;
    std::uint32_t m_count = 0;
    std::uint32_t m_nextIndex = 1;
    // State before the last added chunk.
    std::size_t m_sizeBefore = 0;
    std::uint32_t m_nextIndexBefore = 1;
};

}  // namespace shared_memory
