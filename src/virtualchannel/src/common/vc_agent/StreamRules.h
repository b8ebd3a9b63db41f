// Which streams an agent serves: the names it announces, and the limits on what it makes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>

namespace VirtualChannelAgent {

// The stream names that this side announces in the handshake.
const std::set<std::string>& supportedStreamNames();
// The same as one text, each name followed by "-".
std::string supportedStreamsText();

inline constexpr std::size_t kMaxStreamNameLength = 255;          // bytes
inline constexpr unsigned int kMaxStreamSize = 64U << 20;         // bytes
inline constexpr std::uint64_t kMaxTotalStreamSize = 512U << 20;  // bytes, all streams together
inline constexpr std::size_t kMaxStreams = 256;
// The peer's share of that: local processes always find room.
inline constexpr std::size_t kMaxPeerStreams = 192;
inline constexpr std::uint64_t kMaxPeerTotalSize = 384U << 20;  // bytes

// The most that waits for a local process or for the send thread; the oldest are dropped first. The
// newest message of a stream is always kept.
inline constexpr std::size_t kMaxQueuedMessages = 1001;
inline constexpr std::size_t kMaxQueuedBytes = 256U << 20;  // of one stream
// While more waits in all streams together, a stream keeps less, and no longer message.
inline constexpr std::size_t kMaxQueuedBytesInAll = 512U << 20;
inline constexpr std::size_t kMaxQueuedBytesWhenCrowded = 1U << 20;

// A stream that no local process has open is freed when neither side has used it for this long.
inline constexpr std::uint64_t kFreeAfterMs = 60'000;
// The same when one of those that have requested it may be a process whose use cannot be seen.
inline constexpr std::uint64_t kFreeInDoubtAfterMs = 600'000;
// And when it is still unused this long after it was first found so.
inline constexpr std::uint64_t kSettledAfterMs = 100;

// Whether the name can be part of a system object's name: not empty, not too long, without '/' and
// control characters.
bool isUsableStreamName(std::string_view name);

// Current use of the limits.
struct StreamLoad {
    std::size_t streams = 0;
    std::size_t peerStreams = 0;
    std::uint64_t totalSize = 0;      // bytes
    std::uint64_t peerTotalSize = 0;  // the peer's share

    void add(unsigned int size, bool forPeer);
    void remove(unsigned int size, bool forPeer);
};

// Why another stream of `size` bytes cannot be made, as log text; empty when it can.
std::string_view refusalOfStream(std::string_view name, unsigned int size, bool forPeer,
                                 const StreamLoad& load);

}  // namespace VirtualChannelAgent
