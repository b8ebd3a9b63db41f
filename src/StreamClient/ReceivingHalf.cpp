#include "ReceivingHalf.h"

#include <algorithm>
#include <cstring>

namespace NorvoStreamClient {

namespace {

constexpr std::chrono::milliseconds kLongestSilence{10};
// One acknowledgement per this many frames.
constexpr unsigned int kFramesPerAnswer = 16;
// Small payloads share a buffer of up to this size: each would cost more than its bytes.
constexpr std::size_t kSharedBuffer = 4096;
// Of a peer's frame, whatever the capacities of its streams.
constexpr std::size_t kLongestPayload = 65536 - ConnectionFrame::kHeaderSize;

}  // namespace

void ReceivingHalf::scheduleAck(Time by) { m_ackDue = std::min(m_ackDue.value_or(by), by); }

void ReceivingHalf::hear(const ConnectionFrame& frame, std::string message, Time now) {
    if (frame.has(ConnectionFrame::kAnswer)) scheduleAck(now);
    if (frame.number == 0) return;
    m_seen = std::max(m_seen, frame.number);
    const bool accepted = accept(frame, std::move(message));
    const bool atOnce = !accepted || m_hasEnd || ++m_untold >= kFramesPerAnswer;
    scheduleAck(atOnce ? now : now + kLongestSilence);
}

bool ReceivingHalf::accept(const ConnectionFrame& frame, std::string message) {
    const std::size_t length = message.size() - ConnectionFrame::kHeaderSize;
    const bool fits = frame.offset + length <= m_taken + m_capacity;
    if (frame.offset != m_received || m_hasEnd || !fits) return false;
    m_received += length;
    if (length > 0) keep(std::move(message), length);
    if (frame.has(ConnectionFrame::kEnd)) {
        m_hasEnd = true;
        ++m_received;
    }
    return true;
}

void ReceivingHalf::keep(std::string message, std::size_t length) {
    if (!m_waiting.empty() && m_waiting.back().message.size() + length <= kSharedBuffer) {
        m_waiting.back().message.append(message, ConnectionFrame::kHeaderSize);
    } else {
        m_waiting.push_back({std::move(message), ConnectionFrame::kHeaderSize});
    }
}

std::size_t ReceivingHalf::read(char* data, std::size_t length) {
    std::size_t done = 0;
    while (done < length && !m_waiting.empty()) {
        Waiting& front = m_waiting.front();
        const std::size_t part = std::min(length - done, front.message.size() - front.begin);
        std::memcpy(data + done, front.message.data() + front.begin, part);
        done += part;
        front.begin += part;
        if (front.begin == front.message.size()) m_waiting.pop_front();
    }
    m_taken += done;
    if (isLimitDue()) scheduleAck(Time::min());
    return done;
}

// A peer that has sent all it may waits until the limit leaves room for a whole frame. In a window
// below two frames, the limit may have to grow by more than half of the window for that, but is
// high enough once everything was read.
bool ReceivingHalf::isLimitDue() const {
    const std::uint64_t limit = m_taken + m_capacity;
    const bool isPeerStuck = m_waiting.empty() && m_limitTold < m_received + kLongestPayload;
    return !m_hasEnd &&
           (limit >= m_limitTold + m_capacity / 2 || (isPeerStuck && limit > m_limitTold));
}

void ReceivingHalf::describe(ConnectionFrame& frame) {
    m_limitTold = m_taken + m_capacity;
    m_untold = 0;
    m_ackDue.reset();
    frame.seen = m_seen;
    frame.acked = m_received;
    frame.limit = m_limitTold;
    frame.messages = m_messages;
}

void ReceivingHalf::describeLast(ConnectionFrame& frame) {
    describe(frame);
    if (hasData()) frame.acked = m_taken;
}

}  // namespace NorvoStreamClient
