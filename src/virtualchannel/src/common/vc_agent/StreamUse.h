#pragma once

#include <atomic>
#include <cstdint>

namespace VirtualChannelAgent {

// Who requested a stream.
enum class Requester { LocalProcess, FarSide };

// Tracks who needs a stream, as far as the agent can tell. Thread-safe.
class StreamUse {
public:
    // Either side has sent a message about the stream, or data has passed through it.
    void note() {
        if (!m_noted.load(std::memory_order_relaxed)) m_noted = true;
    }
    void askedFor(Requester by) {
        (by == Requester::FarSide ? m_byPeer : m_byLocal) = true;
        note();
    }
    // A local process was seen to have the segment open.
    void seenOpen() { m_seenOpen = true; }

    bool isPeers() const { return m_byPeer && !m_byLocal; }
    // A local process has requested it, but was never seen to have it open.
    bool isKept() const { return m_byLocal && !m_seenOpen; }

    // For how many milliseconds nothing has been noted. For one caller, which calls regularly.
    std::uint64_t idleMs(std::uint64_t nowMs) {
        if (m_noted.exchange(false) || nowMs < m_idleSinceMs) m_idleSinceMs = nowMs;
        return nowMs - m_idleSinceMs;
    }

private:
    std::atomic<bool> m_noted{true};
    std::atomic<bool> m_byPeer{false};
    std::atomic<bool> m_byLocal{false};
    std::atomic<bool> m_seenOpen{false};
    std::atomic<std::uint64_t> m_idleSinceMs{0};
};

}  // namespace VirtualChannelAgent
