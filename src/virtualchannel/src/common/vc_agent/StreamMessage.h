#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "MemoryBlock.h"

namespace VirtualChannelAgent {

struct Uncount {
    std::size_t size = 0;
    void operator()(std::atomic<std::size_t>* total) const { *total -= size; }
};

// One message on its way to a local process: a text of its own, or part of the memory in which it
// was received.
class StreamMessage {
public:
    explicit StreamMessage(std::string text) : m_text(std::move(text)) {}
    // `part` lies in `memory`.
    StreamMessage(VDIFrameworkCommon::MemoryBlock memory, std::string_view part)
        : m_memory(std::move(memory)), m_part(part) {}

    std::string_view bytes() const { return m_memory ? m_part : std::string_view(m_text); }
    // Bytes of memory that it holds.
    std::size_t size() const { return m_memory ? m_memory.capacity() : m_text.size(); }

    // Adds its size to `total` until it is destroyed.
    void countIn(std::atomic<std::size_t>& total) {
        total += size();
        m_counted = {&total, Uncount{size()}};
    }

private:
    std::string m_text;
    VDIFrameworkCommon::MemoryBlock m_memory;
    std::string_view m_part;
    std::unique_ptr<std::atomic<std::size_t>, Uncount> m_counted;
};

}  // namespace VirtualChannelAgent
