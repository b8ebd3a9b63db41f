#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "ConnectionFrame.h"
#include "NorvoStreamClientStatus.h"
#include "ReceivingHalf.h"
#include "SendingHalf.h"

namespace NorvoStreamClient {

// One end of a connection, as docs/connections.md describes it: frames in, frames out, and what
// time it is. Has no thread, stream or clock of its own. Not thread-safe.
//
// Frames may be lost, repeated, or come from an earlier connection at any time. What is read at one
// end is nevertheless what was written at the other, and if that cannot be had the machine fails.
class ConnectionMachine {
public:
    using Time = std::chrono::steady_clock::time_point;
    using Frame = std::shared_ptr<const std::string>;

    enum class Role { Connect, Accept };
    enum class State {
        Calling,    // says Hello until it is welcomed
        Listening,  // waits for a Hello
        Welcoming,  // has answered one, and waits for a sign that this has arrived
        Open,
        Failed,
    };

    struct Settings {
        std::size_t blockSize = 65536 - ConnectionFrame::kHeaderSize;
        std::size_t capacity = 4u << 20;  // bytes, of either direction
        std::uint32_t messages = 128;
        // How long the other end may be silent while frames can pass.
        std::chrono::milliseconds peerTimeout{20000};
        // How long no frames may be able to pass.
        std::chrono::milliseconds outage{60000};
    };

    // `epoch` is this end's: a random number other than 0 that no connection had before.
    ConnectionMachine(Role role, std::uint64_t epoch, Settings settings, Time now);

    // --- from the path ---
    void hear(std::string message, Time now);
    // Whether frames can pass at present.
    void setPath(bool isUp, Time now);

    // --- from the program ---
    // The bytes taken over or moved out; may be fewer than asked for, also none.
    std::size_t write(const char* data, std::size_t length);
    std::size_t read(char* data, std::size_t length);
    // Nothing more is written.
    void finish();
    // Fails, and tells the other end.
    void abort(Time now);

    // Fails if a time-out is over.
    void lookAtTime(Time now);

    // --- to the path ---
    // The next frame to send now; null when there is none. Looks at the time-outs, too. A frame is
    // not changed before the next call.
    Frame nextFrame(Time now);
    bool hasFrame(Time now) const;
    // When to ask again if nothing happens before.
    Time nextWakeUp() const;

    State state() const { return m_state; }
    bool isOpen() const { return m_state == State::Open; }
    // Why it failed; no failure before.
    const Status& failure() const { return m_failure; }
    bool hasData() const { return m_in.hasData(); }
    // The other end has finished, and everything was read.
    bool isAtEnd() const { return m_in.hasEnd() && !m_in.hasData(); }
    // The other end has all that was written, and the end if this one has finished.
    bool isDrained() const { return m_out.isDrained(); }
    // Both directions are over.
    bool isOver() const { return m_in.hasEnd() && m_out.isFinished() && m_out.isDrained(); }
    std::uint64_t acked() const { return m_out.acked(); }
    std::uint64_t written() const { return m_out.written(); }
    std::uint64_t framesUnderWay() const { return m_out.underWay(); }

private:
    void enter(State state, Time now);
    bool isConsistent() const;
    void fail(Status why, Time now, bool tellPeer);

    void hearHello(const ConnectionFrame& frame, Time now);
    void hearWelcome(const ConnectionFrame& frame, Time now);
    void hearReset(const ConnectionFrame& frame, Time now);
    void hearData(const ConnectionFrame& frame, std::string message, Time now);
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
    std::uint64_t m_peer = 0;  // the other end's epoch
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
    std::chrono::milliseconds m_peerPatience;
    // A Reset that is to be sent; to == 0: none.
    ConnectionFrame m_reset;
    std::uint64_t m_lastStranger = 0;
    Time m_strangerSince;
};

}  // namespace NorvoStreamClient
