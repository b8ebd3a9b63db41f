#pragma once

#include <atomic>
#include <cstdint>

namespace VirtualChannelAgent {

// On whose wish a stream is made.
enum class Requester { LocalProcess, FarSide };

// Who needs a stream, as far as its agent can tell. Thread-safe.
class StreamUse {
public:
    // Either side has said something about the stream, or something has passed through it.
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
    // A local process has asked for it, and it cannot be seen whether that still has it open.
    bool isKept() const { return m_byLocal && !m_seenOpen; }

    // For how long, in milliseconds, nothing has been noted. One caller, which asks regularly.
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
