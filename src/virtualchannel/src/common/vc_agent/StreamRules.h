// Which streams an agent serves: the names it announces, and what it refuses to make.
#pragma once

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>

namespace VirtualChannelAgent {

// The stream names that this side announces in the handshake.
const std::set<std::string>& supportedStreamNames();
// The same as one text, "-" after each name.
std::string supportedStreamsText();

inline constexpr std::size_t kMaxStreamNameLength = 255;          // bytes
inline constexpr unsigned int kMaxStreamSize = 64U << 20;         // bytes
inline constexpr std::uint64_t kMaxTotalStreamSize = 512U << 20;  // bytes, all streams together
inline constexpr std::size_t kMaxStreams = 256;
// As much of that may be used because the far side asked: local processes always find room.
inline constexpr std::size_t kMaxPeerStreams = 192;
inline constexpr std::uint64_t kMaxPeerTotalSize = 384U << 20;  // bytes

// What waits for a local process, or for the send thread: the newest so many. The newest message of
// a stream waits in any case.
inline constexpr std::size_t kMaxQueuedMessages = 1001;
inline constexpr std::size_t kMaxQueuedBytes = 256U << 20;  // of one stream

// A stream that no local process has open and that neither side has used for so long is freed.
inline constexpr std::uint64_t kFreeAfterMs = 60'000;

// A name that can be part of the names of system objects: not empty, not too long, without '/' and
// control characters.
bool isUsableStreamName(std::string_view name);

// How much of the limits is used.
struct StreamLoad {
    std::size_t streams = 0;
    std::size_t peerStreams = 0;
    std::uint64_t totalSize = 0;      // bytes
    std::uint64_t peerTotalSize = 0;  // of it, for the far side

    void add(unsigned int size, bool forPeer);
    void remove(unsigned int size, bool forPeer);
};

// Why one more stream of `size` bytes cannot be made, as text for the log; empty when it can.
std::string_view refusalOfStream(std::string_view name, unsigned int size, bool forPeer,
                                 const StreamLoad& load);

}  // namespace VirtualChannelAgent
