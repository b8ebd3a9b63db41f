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

// What this end of a connection sends: bytes in blocks of one frame each, kept until the other end
// has them. Not thread-safe.
//
// The path keeps the order of the frames or loses some of them. So once the other end has seen a
// transmission, every earlier one that it has not acknowledged is lost; sending goes on from there.
// When nothing is heard for a while the oldest block alone is sent again, to find out.
class SendingHalf {
public:
    using Time = std::chrono::steady_clock::time_point;
    using Block = std::shared_ptr<std::string>;

    // `blockSize` is what fits into a frame behind its header, `capacity` how many bytes may wait
    // for their acknowledgement.
    SendingHalf(std::size_t blockSize, std::size_t capacity)
        : m_blockSize(blockSize), m_capacity(capacity) {}

    // Takes over as many bytes as there is room for; none after finish().
    std::size_t write(const char* data, std::size_t length);
    void finish();

    // What a frame of the other end says of this direction. False when it cannot be true.
    bool hear(const ConnectionFrame& frame, Time now);
    // Forgets what another end said of what it can take; nothing was sent to that yet.
    void forgetWindow() { m_limit = m_messages = 0; }
    // Something may be there to hear the other end again: finds out at once.
    void expectLoss(Time now);

    bool maySend(Time now) const;
    // The next block to send, with the fields of `frame` filled in that concern it.
    // Only when maySend().
    Block next(ConnectionFrame& frame, Time now);
    // When the oldest block is sent again, if nothing happens before.
    std::optional<Time> resendAt() const { return m_resendAt; }

    // The position up to which the other end has everything.
    std::uint64_t acked() const { return m_acked; }
    // How many bytes were written.
    std::uint64_t written() const { return m_written; }
    bool isFinished() const { return m_finished; }
    // Everything that was written has arrived, the end as well if there is one.
    bool isDrained() const { return m_blocks.empty(); }
    // Sent for the first time or again since the other end has last seen one.
    std::uint64_t underWay() const { return m_number - m_seen; }

private:
    struct Piece {
        Block frame;  // with room for the header
        std::uint64_t offset;
        bool end = false;
        std::uint64_t number = 0;  // of its last transmission; 0 when it is to be sent (again)
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
    std::deque<Piece> m_blocks;   // what is not acknowledged
    std::size_t m_unsent = 0;     // the index of the first block that is to be sent
    std::uint64_t m_written = 0;  // positions
    std::uint64_t m_acked = 0;
    std::uint64_t m_sent = 0;  // the highest position that ever went out
    std::uint64_t m_limit = 0;
    std::uint64_t m_messages = 0;
    std::uint64_t m_number = 0;
    std::uint64_t m_seen = 0;
    bool m_finished = false;
    std::optional<Time> m_resendAt;
    std::chrono::milliseconds m_patience{0};
};

}  // namespace NorvoStreamClient
