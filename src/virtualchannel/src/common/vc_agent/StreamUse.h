#pragma once

#include <atomic>
#include <cstdint>

namespace VirtualChannelAgent {

// Who requested a stream.
enum class Requester { LocalProcess, FarSide };

// Tracks who needs a stream, as far as the agent can tell, until it is given up. Thread-safe.
class StreamUse {
public:
    // Either side has sent a message about the stream. False when it has been given up.
    bool note() {
        unsigned int state = m_state.load(std::memory_order_relaxed);
        if (!(state & kNoted)) state = m_state.fetch_or(kNoted);
        return !(state & kGivenUp);
    }
    void askedFor(Requester by) {
        if (by == Requester::LocalProcess) {
            if (m_byLocal.exchange(true)) m_isInDoubt = true;
        }
        note();
    }
    // A local process was seen to have the segment open.
    void seenOpen() { m_seenOpen = true; }

    // Data that passes through the stream while this exists.
    class Passage {
    public:
        explicit Passage(StreamUse& use)
            : m_use(use), m_isOpen(!(use.m_state.fetch_add(kPassage) & kGivenUp)) {}
        ~Passage() {
            // In one step, or the stream could be given up in between.
            unsigned int state = m_use.m_state.load(std::memory_order_relaxed);
            while (!m_use.m_state.compare_exchange_weak(state, (state | kNoted) - kPassage)) {
            }
        }
        Passage(const Passage&) = delete;
        Passage& operator=(const Passage&) = delete;

        // False when the stream has been given up.
        bool isOpen() const { return m_isOpen; }

    private:
        StreamUse& m_use;
        const bool m_isOpen;
    };

    // A local process has requested it, but was never seen to have it open.
    bool isKept() const { return m_byLocal && !m_seenOpen; }
    // They have requested it more than once: it is unknown whether one of them cannot be seen.
    bool isInDoubt() const { return m_isInDoubt; }

    // The following are for one caller, which calls regularly.

    // For how many milliseconds nothing has been noted.
    std::uint64_t idleMs(std::uint64_t nowMs) {
        const bool isNoted = m_state.fetch_and(~kNoted) & kNoted;
        if (isNoted || nowMs < m_idleSinceMs) {
            m_idleSinceMs = nowMs;
            m_unusedSinceMs = 0;
        }
        return nowMs - m_idleSinceMs;
    }
    // For how many milliseconds it has been called without anything noted in between.
    std::uint64_t unusedMs(std::uint64_t nowMs) {
        if (m_unusedSinceMs == 0) m_unusedSinceMs = nowMs;
        return nowMs - m_unusedSinceMs;
    }
    // Gives the stream up for good, unless anything has been noted since the last idleMs() or is
    // passing through it.
    bool giveUp() {
        unsigned int idle = 0;
        return m_state.compare_exchange_strong(idle, kGivenUp);
    }

private:
    static constexpr unsigned int kNoted = 1;
    static constexpr unsigned int kGivenUp = 2;
    static constexpr unsigned int kPassage = 4;  // the unit of the count of passages

    std::atomic<unsigned int> m_state{kNoted};
    std::atomic<bool> m_byLocal{false};
    std::atomic<bool> m_seenOpen{false};
    std::atomic<bool> m_isInDoubt{false};
    std::atomic<std::uint64_t> m_idleSinceMs{0};
    std::atomic<std::uint64_t> m_unusedSinceMs{0};
};

}  // namespace VirtualChannelAgent
