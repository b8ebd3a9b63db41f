#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>

#include "ConnectionFrame.h"

namespace NorvoStreamClient {

// What this end of a connection receives: the bytes in order, until the program takes them, and
// when the other end is to be told of them. Not thread-safe.
class ReceivingHalf {
public:
    using Time = std::chrono::steady_clock::time_point;

    // At most `capacity` bytes wait for the program; at most `messages` frames may be under way.
    ReceivingHalf(std::size_t capacity, std::uint32_t messages)
        : m_capacity(capacity), m_messages(messages) {}

    // A frame of the other end, and the message that holds it.
    void hear(const ConnectionFrame& frame, std::string message, Time now);
    // Moves up to `length` bytes out.
    std::size_t read(char* data, std::size_t length);

    bool hasData() const { return !m_waiting.empty(); }
    // The other end has finished, and everything before that has come.
    bool hasEnd() const { return m_hasEnd; }

    // When the other end should be told what has come.
    std::optional<Time> answerBy() const { return m_answerBy; }
    // Fills in the fields that tell it, and owes nothing any more.
    void describe(ConnectionFrame& frame);

private:
    struct Waiting {
        std::string message;
        std::size_t begin;
    };

    void owe(Time by);
    // Whether the frame continues what has come.
    bool accept(const ConnectionFrame& frame, std::string message);

    const std::size_t m_capacity;
    const std::uint32_t m_messages;
    std::deque<Waiting> m_waiting;
    std::uint64_t m_received = 0;  // positions
    std::uint64_t m_taken = 0;
    std::uint64_t m_seen = 0;
    std::uint64_t m_limitTold = 0;
    unsigned int m_untold = 0;  // frames
    bool m_hasEnd = false;
    std::optional<Time> m_answerBy;
};

}  // namespace NorvoStreamClient
