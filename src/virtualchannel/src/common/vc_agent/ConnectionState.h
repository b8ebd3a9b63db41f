#pragma once

#include <atomic>

namespace VirtualChannelAgent {

// Where an agent stands with the one at the far end. Not thread-safe, except for the flag that it
// publishes.
class ConnectionState {
public:
    enum class Phase {
        NeverConnected,
        Connected,
        Lost,  // was connected, and may be again
    };
    enum class Cause {
        Handshake,  // the far side has finished one
        Loss,       // either side has said goodbye, or the channel is gone
    };

    // What a change asks for.
    struct Transition {
        Phase from;
        Cause cause;
        Phase to;
        bool announcesChannelUp;   // local processes are told of the connection
        bool reannouncesStreams;   // the far side may have forgotten them
        bool beginsOrEndsThreads;  // and the agent becomes, or no longer is, the active one
    };

    // `connected` is true exactly in the phase Connected, and written here only.
    explicit ConnectionState(std::atomic<bool>& connected) : m_connected(connected) {}

    Phase phase() const { return m_phase; }
    // The transition that `cause` leads to now. There is one for each cause in each phase.
    const Transition& next(Cause cause) const;
    // Makes it.
    void enter(const Transition& transition);

private:
    Phase m_phase = Phase::NeverConnected;
    std::atomic<bool>& m_connected;
};

}  // namespace VirtualChannelAgent
