#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>

#include "ConnectionFrame.h"

namespace NorvoStreamClient {

// The receiving half of a connection's end: holds the bytes in order until the program takes them,
// and decides when to acknowledge them. Not thread-safe.
class ReceivingHalf {
public:
    using Time = std::chrono::steady_clock::time_point;

    // At most `capacity` bytes wait for the program; at most `messages` frames may be in flight.
    ReceivingHalf(std::size_t capacity, std::uint32_t messages)
        : m_capacity(capacity), m_messages(messages) {}

    // Processes a peer's frame; `message` holds it.
    void hear(const ConnectionFrame& frame, std::string message, Time now);
    // Moves up to `length` bytes out.
    std::size_t read(char* data, std::size_t length);

    bool hasData() const { return !m_waiting.empty(); }
    // The peer has finished, and everything before that has arrived.
    bool hasEnd() const { return m_hasEnd; }

    // When the next acknowledgement is due.
    std::optional<Time> ackDue() const { return m_ackDue; }
    // Fills in the acknowledgement; nothing is due any more.
    void describe(ConnectionFrame& frame);
    // The same for the last frame: acknowledges only what the program has taken.
    void describeLast(ConnectionFrame& frame);

private:
    struct Waiting {
        std::string message;
        std::size_t begin;
    };

    void scheduleAck(Time by);
    // Whether the peer should be told at once how far it may send by now.
    bool isLimitDue() const;
    // Takes the frame if it continues what has arrived.
    bool accept(const ConnectionFrame& frame, std::string message);

    // Appends its payload of `length` bytes to what waits for the program.
    void keep(std::string message, std::size_t length);

    const std::size_t m_capacity;
    const std::uint32_t m_messages;
    std::deque<Waiting> m_waiting;
    std::uint64_t m_received = 0;  // positions
    std::uint64_t m_taken = 0;
    std::uint64_t m_seen = 0;
    std::uint64_t m_limitTold = 0;
    unsigned int m_untold = 0;  // frames
    bool m_hasEnd = false;
    std::optional<Time> m_ackDue;
};

}  // namespace NorvoStreamClient
