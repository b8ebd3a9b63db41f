#include "ConnectionMachine.h"

#include <algorithm>
#include <cassert>
#include <utility>

namespace NorvoStreamClient {

using std::chrono::milliseconds;
using Kind = ConnectionFrame::Kind;

namespace {

constexpr milliseconds kFirstGreetingPause{100};
constexpr milliseconds kLongestGreetingPause{250};
// A caller that does not answer the Welcome within this time is gone.
constexpr milliseconds kLongestWelcome{5000};
constexpr milliseconds kPingPause{2000};
// When another program calls, the connected peer must be heard from within this time.
constexpr milliseconds kPatienceBesideACaller{5000};
// A longer gap between two looks at the time means that this process was suspended and its peer may
// have gone on.
constexpr milliseconds kStandstill{3000};
// A stranger's frames are rejected once per this time: a whole window of them may be in flight.
constexpr milliseconds kStrangerPause{500};

}  // namespace

ConnectionMachine::ConnectionMachine(Role role, std::uint64_t epoch, Settings settings, Time now)
    : m_role(role),
      m_epoch(epoch),
      m_settings(settings),
      m_state(initialState()),
      m_out(settings.blockSize, settings.capacity),
      m_in(settings.capacity, settings.messages),
      m_nextGreeting(now),
      m_greetingPause(kFirstGreetingPause),
      m_stateSince(now),
      m_pathSince(now),
      m_lastHeard(now),
      m_nextPing(now),
      m_lastLook(now),
      m_strangerSince(now) {}

void ConnectionMachine::enter(State state, Time now) {
    m_state = state;
    m_stateSince = now;
    m_nextGreeting = state == State::Open ? Time::max() : now;
    m_greetingPause = kFirstGreetingPause;
    if (state == initialState()) m_peer = 0;
    if (state == State::Open) m_lastHeard = now;
    assert(isConsistent());
}

bool ConnectionMachine::isConsistent() const {
    switch (m_state) {
        case State::Calling:
            return m_role == Role::Connect && m_peer == 0 && !m_in.hasData();
        case State::Listening:
            return m_role == Role::Accept && m_peer == 0 && !m_in.hasData();
        case State::Welcoming:
            return m_peer != 0 && !m_in.hasData();
        case State::Open:
            return m_peer != 0 && m_failure;
        case State::Failed:
            return !m_failure;
    }
    return false;
}

void ConnectionMachine::fail(Status why, Time now, bool tellPeer) {
    if (m_state == State::Failed) return;
    if (tellPeer && m_peer != 0) {
        m_reset = ConnectionFrame();
        m_reset.from = m_epoch;
        m_reset.to = m_peer;
        m_in.describeLast(m_reset);
    }
    m_failure = why;
    enter(State::Failed, now);
}

void ConnectionMachine::abort(Time now) { fail(Reason::Closed, now, true); }

void ConnectionMachine::setPath(bool isUp, Time now) {
    if (isUp == m_pathIsUp) return;
    m_pathIsUp = isUp;
    m_pathSince = now;
    if (!isUp) return;
    m_nextPing = now;
    if (m_state == State::Open) return m_out.expectLoss(now);
    m_nextGreeting = now;
    m_greetingPause = kFirstGreetingPause;
}

std::size_t ConnectionMachine::write(const char* data, std::size_t length) {
    return m_state == State::Failed ? 0 : m_out.write(data, length);
}

std::size_t ConnectionMachine::read(char* data, std::size_t length) {
    return m_in.read(data, length);
}

void ConnectionMachine::finish() { m_out.finish(); }

void ConnectionMachine::hear(std::string message, Time now) {
    const auto frame = ConnectionFrame::parse(message);
    if (!frame || m_state == State::Failed) return;
    switch (frame->kind) {
        case Kind::Hello:
            return onHello(*frame, now);
        case Kind::Welcome:
            return onWelcome(*frame, now);
        case Kind::Reset:
            return onReset(*frame, now);
        case Kind::Data:
            return onData(*frame, std::move(message), now);
    }
}

void ConnectionMachine::onHello(const ConnectionFrame& frame, Time now) {
    if (frame.to != 0) return;
    // Of two ends that call each other, the one with the lower epoch answers.
    const bool mayAnswer = m_role == Role::Accept || frame.from > m_epoch;
    if (m_state != State::Open && !mayAnswer) return;
    if (m_state == State::Open && frame.from != m_peer) {
        if (!m_callerSince) m_callerSince = now;
        m_nextPing = now;
    } else if (m_state == State::Open) {
        m_nextGreeting = now;  // it has not received the Welcome
    } else {
        m_peer = frame.from;
        m_out.forgetWindow();
        m_out.hear(frame, now);
        enter(State::Welcoming, now);
    }
}

void ConnectionMachine::onWelcome(const ConnectionFrame& frame, Time now) {
    if (m_role != Role::Connect || frame.to != m_epoch) return;
    // A caller that has answered an old Hello takes the Welcome to its own.
    if (m_state == State::Calling || m_state == State::Welcoming) {
        m_peer = frame.from;
        m_out.forgetWindow();
        enter(State::Open, now);
    }
    if (!isFromPeer(frame)) return;
    m_lastHeard = now;
    m_out.hear(frame, now);
    m_nextPing = now;  // tells the peer that the Welcome arrived
}

void ConnectionMachine::onReset(const ConnectionFrame& frame, Time now) {
    if (!isFromPeer(frame)) return;
    if (m_state == State::Welcoming) return enter(initialState(), now);
    m_out.hear(frame, now);
    if (!isOver()) fail(Reason::PeerGone, now, false);
}

void ConnectionMachine::onData(const ConnectionFrame& frame, std::string message, Time now) {
    if (!isFromPeer(frame)) return rejectStranger(frame, now);
    if (m_state == State::Welcoming) enter(State::Open, now);
    m_lastHeard = now;
    m_nextPing = now + kPingPause;
    m_callerSince.reset();
    if (m_out.hear(frame, now)) m_in.hear(frame, std::move(message), now);
}

// The frame belongs to a connection whose end here is gone; the peer should know.
void ConnectionMachine::rejectStranger(const ConnectionFrame& frame, Time now) {
    if (frame.to == m_epoch || frame.to == 0 || m_state == State::Open) return;
    if (frame.from == m_lastStranger && now - m_strangerSince < kStrangerPause) return;
    m_lastStranger = frame.from;
    m_strangerSince = now;
    m_reset = ConnectionFrame();
    m_reset.from = frame.to;
    m_reset.to = frame.from;
}

void ConnectionMachine::checkTimeouts(Time now) {
    const bool stoodStill = now - m_lastLook > kStandstill;
    m_lastLook = now;
    if (stoodStill) m_pathSince = now;
    if (m_state == State::Welcoming && now - m_stateSince > kLongestWelcome)
        return enter(initialState(), now);
    if (m_state == State::Open && now >= peerDeadline())
        fail(m_pathIsUp ? Reason::PeerGone : Reason::NotConnected, now, true);
}

ConnectionMachine::Time ConnectionMachine::peerDeadline() const {
    if (!m_pathIsUp) return m_pathSince + m_settings.outage;
    const Time usual = std::max(m_lastHeard, m_pathSince) + m_settings.peerTimeout;
    if (!m_callerSince) return usual;
    return std::min<Time>(usual, std::max(*m_callerSince, m_pathSince) + kPatienceBesideACaller);
}

ConnectionMachine::Frame ConnectionMachine::bare(ConnectionFrame frame) {
    auto message = std::make_shared<std::string>(ConnectionFrame::kHeaderSize, '\0');
    if (frame.kind != Kind::Reset) m_in.describe(frame);
    frame.writeHeader(message->data(), 0);
    return message;
}

ConnectionMachine::Frame ConnectionMachine::greeting(Time now) {
    m_nextGreeting = m_state == State::Open ? Time::max() : now + m_greetingPause;
    m_greetingPause = std::min(m_greetingPause * 2, kLongestGreetingPause);
    ConnectionFrame frame;
    frame.kind = m_state == State::Calling ? Kind::Hello : Kind::Welcome;
    frame.from = m_epoch;
    frame.to = m_peer;
    return bare(frame);
}

ConnectionMachine::Frame ConnectionMachine::nextFrame(Time now) {
    checkTimeouts(now);
    if (m_reset.to != 0) {
        ConnectionFrame reset = std::exchange(m_reset, ConnectionFrame());
        reset.kind = Kind::Reset;
        return bare(reset);
    }
    if (m_state == State::Failed || m_state == State::Listening) return nullptr;
    if (owesGreeting(now)) return greeting(now);
    if (m_state != State::Open) return nullptr;

    ConnectionFrame frame;
    frame.from = m_epoch;
    frame.to = m_peer;
    if (m_out.maySend(now)) {
        const auto block = m_out.next(frame, now);
        m_in.describe(frame);
        frame.writeHeader(block->data(), block->size() - ConnectionFrame::kHeaderSize);
        return block;
    }
    if (!owesAnswer(now)) return nullptr;
    const bool pings = m_nextPing <= now;
    if (pings) frame.flags = ConnectionFrame::kAnswer;
    if (pings) m_nextPing = now + kPingPause;
    return bare(frame);
}

bool ConnectionMachine::owesGreeting(Time now) const {
    return m_nextGreeting <= now && m_state != State::Failed && m_state != State::Listening;
}

bool ConnectionMachine::owesAnswer(Time now) const {
    return m_nextPing <= now || (m_in.ackDue() && *m_in.ackDue() <= now);
}

bool ConnectionMachine::hasFrame(Time now) const {
    if (m_reset.to != 0 || owesGreeting(now)) return true;
    return m_state == State::Open && (m_out.maySend(now) || owesAnswer(now));
}

ConnectionMachine::Time ConnectionMachine::nextWakeUp() const {
    if (m_reset.to != 0) return Time::min();
    switch (m_state) {
        case State::Listening:
        case State::Failed:
            return Time::max();
        case State::Calling:
            return m_nextGreeting;
        case State::Welcoming:
            return std::min(m_nextGreeting, m_stateSince + kLongestWelcome);
        case State::Open:
            break;
    }
    const auto orNever = [](const std::optional<Time>& time) { return time.value_or(Time::max()); };
    return std::min({m_nextGreeting, m_nextPing, peerDeadline(), orNever(m_in.ackDue()),
                     orNever(m_out.resendAt())});
}

}  // namespace NorvoStreamClient
