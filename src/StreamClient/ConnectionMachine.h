#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "ConnectionFrame.h"
#include "NorvoStreamClientStatus.h"
#include "ReceivingHalf.h"
#include "SendingHalf.h"

namespace NorvoStreamClient {

// One end of a connection (docs/connections.md): takes received frames and the time, returns frames
// to send. Has no thread, stream or clock of its own. Not thread-safe.
//
// Frames may be lost, repeated, or belong to an earlier connection. One end still reads exactly
// what the other wrote; where that is impossible the machine fails.
class ConnectionMachine {
public:
    using Time = std::chrono::steady_clock::time_point;
    using Frame = std::shared_ptr<const std::string>;

    enum class Role { Connect, Accept };
    enum class State {
        Calling,    // sends Hello until a Welcome arrives
        Listening,  // waits for a Hello
        Welcoming,  // has answered one, and waits for proof that the answer arrived. Also an end
                    // that calls, when its peer calls, too, and has the higher epoch
        Open,
        Failed,
    };

    struct Settings {
        std::size_t blockSize = 65536 - ConnectionFrame::kHeaderSize;
        std::size_t capacity = 4u << 20;  // bytes, in each direction
        std::uint32_t messages = 128;
        // How long the peer may be silent while frames can pass.
        std::chrono::milliseconds peerTimeout{20000};
        // How long the path may be down.
        std::chrono::milliseconds outage{60000};
    };

    // `epoch` identifies this end: a random number other than 0, not used by any earlier
    // connection.
    ConnectionMachine(Role role, std::uint64_t epoch, Settings settings, Time now);

    // --- from the path ---
    void hear(std::string message, Time now);
    // Whether frames can pass at present.
    void setPath(bool isUp, Time now);

    // --- from the program ---
    // Returns the bytes accepted or read; may be fewer than requested, even 0.
    std::size_t write(const char* data, std::size_t length);
    std::size_t read(char* data, std::size_t length);
    // Ends the outgoing direction.
    void finish();
    // Fails, and notifies the peer.
    void abort(Time now);

    // Acts on expired time-outs.
    void checkTimeouts(Time now);

    // --- to the path ---
    // The next frame to send now; null when there is none. Also acts on expired time-outs. A frame
    // stays unchanged until the next call.
    Frame nextFrame(Time now);
    bool hasFrame(Time now) const;
    // When to call again if nothing happens before.
    Time nextWakeUp() const;

    State state() const { return m_state; }
    bool isOpen() const { return m_state == State::Open; }
    // Why it failed; success until then.
    const Status& failure() const { return m_failure; }
    bool hasData() const { return m_in.hasData(); }
    // The peer has finished, and everything was read.
    bool isAtEnd() const { return m_in.hasEnd() && !m_in.hasData(); }
    // The peer has everything that was written, including the end, if finished.
    bool isDrained() const { return m_out.isDrained(); }
    // Both directions are finished, and everything has arrived.
    bool isOver() const { return m_in.hasEnd() && m_out.isFinished() && m_out.isDrained(); }
    std::uint64_t acked() const { return m_out.acked(); }
    std::uint64_t written() const { return m_out.written(); }
    std::uint64_t framesUnderWay() const { return m_out.underWay(); }

private:
    State initialState() const {
        return m_role == Role::Connect ? State::Calling : State::Listening;
    }
    void enter(State state, Time now);
    bool isConsistent() const;
    void fail(Status why, Time now, bool tellPeer);

    void onHello(const ConnectionFrame& frame, Time now);
    void onWelcome(const ConnectionFrame& frame, Time now);
    void onReset(const ConnectionFrame& frame, Time now);
    void onData(const ConnectionFrame& frame, std::string message, Time now);
    void rejectStranger(const ConnectionFrame& frame, Time now);
    bool isFromPeer(const ConnectionFrame& frame) const {
        return m_peer != 0 && frame.from == m_peer && frame.to == m_epoch;
    }

    Time peerDeadline() const;
    bool owesGreeting(Time now) const;
    bool owesAnswer(Time now) const;
    Frame greeting(Time now);
    Frame bare(ConnectionFrame frame);

    const Role m_role;
    const std::uint64_t m_epoch;
    const Settings m_settings;
    State m_state;
    Status m_failure;
    std::uint64_t m_peer = 0;  // the peer's epoch
    SendingHalf m_out;
    ReceivingHalf m_in;

    Time m_nextGreeting;
    std::chrono::milliseconds m_greetingPause{0};
    Time m_stateSince;
    bool m_pathIsUp = false;
    Time m_pathSince;
    Time m_lastHeard;
    Time m_nextPing;
    Time m_lastLook;
    // Since when another program has called without a sign of the peer.
    std::optional<Time> m_callerSince;
    // The Reset to send; none when to == 0.
    ConnectionFrame m_reset;
    std::uint64_t m_lastStranger = 0;
    Time m_strangerSince;
};

}  // namespace NorvoStreamClient
