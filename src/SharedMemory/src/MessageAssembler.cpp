#include "MessageAssembler.h"

#include <algorithm>
#include <new>
#include <utility>

namespace shared_memory {

namespace {

constexpr std::uint32_t kReservedAtOnce = 64U << 20U;

bool isPlausibleStart(const ChunkHeader& chunk, std::uint32_t capacity) {
    const std::uint64_t room = std::uint64_t{chunk.count} * capacity;
    return chunk.count >= 1 && chunk.total <= MessageAssembler::kLongest && chunk.total <= room &&
           chunk.count <= std::max(chunk.total, 1U);
}

}  // namespace

MessageAssembler::Outcome MessageAssembler::add(const ChunkHeader& chunk, const char* data,
                                                std::uint32_t capacity) {
    if (chunk.index == 1) {
        if (!begin(chunk, capacity)) return refuse(Outcome::BadLength);
    } else if (!inProgress() || chunk.index != m_nextIndex || chunk.count != m_count) {
        return refuse(Outcome::Stray);
    }
    m_sizeBefore = m_message.size();
    m_nextIndexBefore = m_nextIndex;
    if (chunk.length > capacity || chunk.length > m_total - m_message.size()) {
        return refuse(Outcome::BadLength);
    }
    if (!append(chunk, data)) return refuse(Outcome::NoMemory);
    if (chunk.index < m_count) {
        m_nextIndex = chunk.index + 1;
        return Outcome::Incomplete;
    }
    m_nextIndex = 1;
    return m_message.size() == m_total ? Outcome::Complete : refuse(Outcome::BadLength);
}

bool MessageAssembler::begin(const ChunkHeader& chunk, std::uint32_t capacity) {
    drop();
    if (!isPlausibleStart(chunk, capacity)) return false;
    m_total = chunk.total;
    m_count = chunk.count;
    return true;
}

bool MessageAssembler::append(const ChunkHeader& chunk, const char* data) {
    try {
        if (chunk.index == 1) m_message.reserve(std::min(m_total, kReservedAtOnce));
        m_message.append(data, chunk.length);
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

std::string MessageAssembler::take() {
    m_nextIndex = 1;
    return std::exchange(m_message, {});
}

void MessageAssembler::drop() {
    m_nextIndex = 1;
    m_sizeBefore = 0;
    m_nextIndexBefore = 1;
    // Assigning an empty string would keep the memory.
    std::string().swap(m_message);
}

void MessageAssembler::retract() {
    if (m_sizeBefore == 0) {
        drop();
        return;
    }
    m_message.resize(m_sizeBefore);
    m_nextIndex = m_nextIndexBefore;
}

MessageAssembler::Outcome MessageAssembler::refuse(Outcome outcome) {
    drop();
    return outcome;
}

}  // namespace shared_memory
