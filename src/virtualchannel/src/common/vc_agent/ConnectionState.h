#pragma once

#include <atomic>

namespace VirtualChannelAgent {

// The state of an agent's connection to its peer. Not thread-safe, except for the published flag.
class ConnectionState {
public:
    enum class Phase {
        NeverConnected,
        Connected,
        Lost,  // was connected, and may be again
    };
    enum class Cause {
        Handshake,  // the peer has finished a handshake
        Loss,       // either side has disconnected, or the channel is gone
    };

    // A change of state and its consequences.
    struct Transition {
        Phase from;
        Cause cause;
        Phase to;
        bool announcesChannelUp;   // local processes are notified
        bool reannouncesStreams;   // the peer may have forgotten them
        bool beginsOrEndsThreads;  // and the agent becomes active or inactive
    };

    // `connected` is true exactly in the phase Connected, and written here only.
    explicit ConnectionState(std::atomic<bool>& connected) : m_connected(connected) {}

    Phase phase() const { return m_phase; }
    // The transition for `cause` in the current phase. Every phase has one for each cause.
    const Transition& next(Cause cause) const;
    // Performs it.
    void enter(const Transition& transition);

private:
    Phase m_phase = Phase::NeverConnected;
    std::atomic<bool>& m_connected;
};

}  // namespace VirtualChannelAgent
