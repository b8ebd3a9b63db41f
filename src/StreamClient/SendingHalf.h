#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>

#include "ConnectionFrame.h"

namespace NorvoStreamClient {

// The sending half of a connection's end: keeps bytes, in blocks of one frame each, until the peer
// has them. Not thread-safe.
//
// The path may lose frames but never reorders them. So once the peer has seen a transmission, every
// earlier one that it has not acknowledged is lost; sending resumes from there. After a time
// without an answer only the oldest block is resent, as a probe.
class SendingHalf {
public:
    using Time = std::chrono::steady_clock::time_point;
    using Block = std::shared_ptr<std::string>;

    // `blockSize`: bytes that fit into a frame after its header; `capacity`: bytes that may await
    // acknowledgement.
    SendingHalf(std::size_t blockSize, std::size_t capacity)
        : m_blockSize(blockSize), m_capacity(capacity) {}

    // Accepts as many bytes as there is room for; none after finish().
    std::size_t write(const char* data, std::size_t length);
    void finish();

    // Processes what a peer's frame says about this direction. False when it is invalid.
    bool hear(const ConnectionFrame& frame, Time now);
    // Forgets an earlier peer's window; nothing has been sent to that peer.
    void forgetWindow() { m_limit = m_messages = 0; }
    // The path is up again: probes for loss at once.
    void expectLoss(Time now);

    bool maySend(Time now) const;
    // The next block to send; fills in the fields of `frame` that concern it. Only when maySend().
    Block next(ConnectionFrame& frame, Time now);
    // When the oldest block is resent, if nothing happens before.
    std::optional<Time> resendAt() const { return m_resendAt; }

    // The position up to which the peer has everything.
    std::uint64_t acked() const { return m_acked; }
    // How many bytes were written.
    std::uint64_t written() const { return m_written; }
    bool isFinished() const { return m_finished; }
    // Everything written has arrived, including the end, if any.
    bool isDrained() const { return m_blocks.empty(); }
    // Frames sent or resent since the last one that the peer has seen.
    std::uint64_t underWay() const { return m_number - m_seen; }

private:
    struct Piece {
        Block frame;  // with room for the header
        std::uint64_t offset;
        bool end = false;
        std::uint64_t number = 0;  // of its last transmission; 0: never sent
        std::size_t length() const { return frame->size() - ConnectionFrame::kHeaderSize; }
        std::uint64_t after() const { return offset + length() + (end ? 1 : 0); }
    };

    Piece& pieceWithRoom();
    Block makeBlock();
    void forget(std::uint64_t before);
    bool isInWindow(const Piece& piece) const;
    bool isResendDue(Time now) const { return m_resendAt && *m_resendAt <= now; }
    void restartTimer(Time now);

    const std::size_t m_blockSize;
    const std::size_t m_capacity;
    std::deque<Piece> m_blocks;   // not yet acknowledged
    std::size_t m_unsent = 0;     // index of the first block to send
    std::uint64_t m_written = 0;  // positions
    std::uint64_t m_acked = 0;
    std::uint64_t m_sent = 0;  // the highest position ever sent
    std::uint64_t m_limit = 0;
    std::uint64_t m_messages = 0;
    std::uint64_t m_number = 0;
    std::uint64_t m_seen = 0;
    bool m_finished = false;
    std::optional<Time> m_resendAt;
    std::chrono::milliseconds m_retransmitTimeout{0};
};

}  // namespace NorvoStreamClient
