#include "SendingHalf.h"

#include <algorithm>

namespace NorvoStreamClient {

using std::chrono::milliseconds;

namespace {

constexpr milliseconds kFirstTimeout{1000};
constexpr milliseconds kLongestTimeout{4000};
// A stream keeps its newest 1001 messages; stay far below that, whatever the peer says.
constexpr std::uint32_t kMostMessages = 256;

}  // namespace

SendingHalf::Block SendingHalf::makeBlock() {
    auto block = std::make_shared<std::string>();
    block->reserve(ConnectionFrame::kHeaderSize + m_blockSize);
    block->resize(ConnectionFrame::kHeaderSize);
    return block;
}

// The last block if it was never sent and is not full, else a new one.
SendingHalf::Piece& SendingHalf::pieceWithRoom() {
    if (m_unsent < m_blocks.size() && m_blocks.back().after() > m_sent &&
        m_blocks.back().length() < m_blockSize)
        return m_blocks.back();
    m_blocks.push_back({makeBlock(), m_written});
    return m_blocks.back();
}

std::size_t SendingHalf::write(const char* data, std::size_t length) {
    if (m_finished) return 0;
    const std::size_t taken = std::min<std::size_t>(length, m_capacity - (m_written - m_acked));
    for (std::size_t done = 0; done < taken;) {
        Piece& piece = pieceWithRoom();
        const std::size_t part = std::min(taken - done, m_blockSize - piece.length());
        piece.frame->append(data + done, part);
        done += part;
        m_written += part;
    }
    return taken;
}

void SendingHalf::finish() {
    if (m_finished) return;
    m_finished = true;
    pieceWithRoom().end = true;
}

bool SendingHalf::hear(const ConnectionFrame& frame, Time now) {
    if (frame.acked > m_sent || frame.seen > m_number) return false;
    m_limit = std::max(m_limit, frame.limit);
    m_messages = std::min(frame.messages, kMostMessages);
    m_seen = std::max(m_seen, frame.seen);
    if (frame.acked > m_acked) {
        forget(frame.acked);
        restartTimer(now);
    }
    const bool lost = m_unsent > 0 && m_blocks.front().number <= m_seen;
    if (lost) {
        m_unsent = 0;
        restartTimer(now);
    }
    return true;
}

void SendingHalf::forget(std::uint64_t before) {
    m_acked = before;
    while (!m_blocks.empty() && m_blocks.front().after() <= before) {
        m_blocks.pop_front();
        m_unsent -= m_unsent > 0 ? 1 : 0;
    }
}

void SendingHalf::restartTimer(Time now) {
    m_retransmitTimeout = kFirstTimeout;
    m_resendAt.reset();
    if (m_unsent > 0) m_resendAt = now + m_retransmitTimeout;
}

void SendingHalf::expectLoss(Time now) {
    m_retransmitTimeout = kFirstTimeout;
    if (m_resendAt) m_resendAt = now;
}

bool SendingHalf::isInWindow(const Piece& piece) const {
    return piece.offset + piece.length() <= m_limit && underWay() < m_messages;
}

bool SendingHalf::maySend(Time now) const {
    if (m_unsent < m_blocks.size() && isInWindow(m_blocks[m_unsent])) return true;
    return isResendDue(now) && m_unsent > 0;
}

SendingHalf::Block SendingHalf::next(ConnectionFrame& frame, Time now) {
    Piece* piece = &m_blocks.front();
    if (isResendDue(now) && m_unsent > 0) {
        m_retransmitTimeout = std::min(m_retransmitTimeout * 2, kLongestTimeout);
        m_resendAt = now + m_retransmitTimeout;
    } else {
        piece = &m_blocks[m_unsent++];
        if (!m_resendAt) restartTimer(now);
    }
    piece->number = ++m_number;
    m_sent = std::max(m_sent, piece->after());
    frame.number = piece->number;
    frame.offset = piece->offset;
    if (piece->end) frame.flags |= ConnectionFrame::kEnd;
    if (m_unsent == m_blocks.size() || !isInWindow(m_blocks[m_unsent]))
        frame.flags |= ConnectionFrame::kAnswer;
    return piece->frame;
}

}  // namespace NorvoStreamClient
