#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <string>

#include "AgentState.h"
#include "LocalMutex.h"
#include "NorvoStreamClient.h"

namespace NorvoStreamClient {

using Clock = std::chrono::steady_clock;

// What this process knows about the agent and its streams, from the notifications received and the
// requests taken, and what to request next. Has no segment and no thread of its own. Thread-safe.
//
// An agent proves its presence by taking requests. An agent that does not take a request is
// considered gone: the connection ends, every stream is down, and a probe is sent periodically
// until an agent takes it. Everything this process wants is then requested again.
class AgentView {
public:
    // Something to send to the agent now; an empty text is a heartbeat.
    struct Due {
        std::string text;
        std::string stream;                  // the stream it requests, if any
        std::chrono::milliseconds patience;  // for the agent to take it
        Clock::time_point since;
    };
    struct Heard {
        std::optional<bool> connectionChange;  // the new state
        bool isNews;                           // worth reporting to the program
    };

    struct Agent {
        unsigned int processId;
        unsigned int generation;  // incremented whenever the agent is lost or replaced
    };

    // AlreadyOpen or Closed when it cannot be added.
    Status mayAddStream(const std::string& name) const;
    // The same errors.
    Status addStream(const std::string& name, Direction direction, unsigned int capacity);
    void removeStream(const std::string& name);

    bool isUp(const std::string& name) const { return static_cast<bool>(standing(name)); }
    // Success when the stream is up, otherwise what it lacks: InUseOtherDirection, NoAgent,
    // NotConnected, NotTakenUp or Closed.
    Status standing(const std::string& name) const;
    // Waits until the stream is up, is found to be in use in the other direction, or is closed.
    Status waitUntilUp(const std::string& name, Clock::time_point deadline) const;
    bool isConnected() const;
    // NoAgent, NotConnected or Closed when it fails.
    Status waitUntilConnected(Clock::time_point deadline) const;
    // Success when an agent is there, else NoAgent or Closed.
    Status agentStanding() const;
    Agent agent() const;
    // The direction in which local processes use the stream `name`, as reported by the agent; if
    // only `opposite` was reported, the reverse of its direction. Waits until either is reported.
    std::optional<Direction> waitForDirection(const std::string& name, const std::string& opposite,
                                              Clock::time_point deadline) const;
    // Before the agent is asked: what it reported earlier may no longer hold.
    void forgetDirections(const std::string& name, const std::string& opposite);
    unsigned int agentProcessId() const { return agent().processId; }

    Heard hear(const Notification& notification, Clock::time_point now);
    // The program itself requests the process ID: the answer is reported even if the ID is known.
    void expectProcessId();

    // What to send now, if anything. Report the outcome with finished() before the next call.
    std::optional<Due> due(Clock::time_point now);
    // Returns the new connection state if that changed.
    std::optional<bool> finished(const Due& request, bool taken, Clock::time_point now);
    // The agent may be gone: makes a heartbeat due at once.
    void suspect();

    // Sleeps until something is due, at most until `latest`. False once closed.
    bool waitForDue(Clock::time_point latest) const;

    // Ends every wait, for good.
    void close();

private:
    struct Entry {
        Direction direction;
        unsigned int capacity;
        bool up = false;
        bool otherDirection = false;      // the agents carry it the other way
        Clock::time_point nextRequest{};  // while not up; {}: at once
    };

    // After each state change: requests everything again if the connection or the agent changed.
    std::optional<bool> follow(std::optional<bool> change, unsigned int processIdBefore)
        NORVO_REQUIRES(m_mutex);
    std::optional<bool> apply(AgentState::Event event) NORVO_REQUIRES(m_mutex);
    Status standingOf(const std::string& name) const NORVO_REQUIRES(m_mutex);
    Status connectionStanding() const NORVO_REQUIRES(m_mutex);
    std::optional<bool> hearProcessId(const Notification& notification, Clock::time_point now)
        NORVO_REQUIRES(m_mutex);
    void hearStreamUp(const Notification& notification) NORVO_REQUIRES(m_mutex);
    std::optional<bool> losesAgent(Clock::time_point now) NORVO_REQUIRES(m_mutex);
    void requestAllAgain() NORVO_REQUIRES(m_mutex);
    void noticeStandstill(Clock::time_point now) NORVO_REQUIRES(m_mutex);
    bool wantsPoll() const NORVO_REQUIRES(m_mutex);
    std::string pollText() const NORVO_REQUIRES(m_mutex);
    std::optional<Due> streamRequest(Clock::time_point by, Clock::time_point now) const
        NORVO_REQUIRES(m_mutex);
    bool wantsProcessId() const NORVO_REQUIRES(m_mutex) {
        return !m_state.isThere() || m_state.processId() == 0 || m_state.isDoubted();
    }
    Clock::time_point nextDue() const NORVO_REQUIRES(m_mutex);
    std::chrono::milliseconds patience() const NORVO_REQUIRES(m_mutex);

    mutable VDIFrameworkCommon::LocalMutex m_mutex;
    mutable VDIFrameworkCommon::LocalCondition m_changed;
    std::map<std::string, Entry> m_streams NORVO_GUARDED_BY(m_mutex);
    bool m_closed NORVO_GUARDED_BY(m_mutex) = false;
    // The streams reported by the agent since everything was last requested again.
    std::map<std::string, Direction> m_reported NORVO_GUARDED_BY(m_mutex);
    AgentState m_state NORVO_GUARDED_BY(m_mutex);
    bool m_expectsProcessId NORVO_GUARDED_BY(m_mutex) = false;
    Clock::time_point m_nextProcessId NORVO_GUARDED_BY(m_mutex){};
    Clock::time_point m_lastHeard NORVO_GUARDED_BY(m_mutex){};
    Clock::time_point m_nextSignOfLife NORVO_GUARDED_BY(m_mutex){};
    Clock::time_point m_nextPoll NORVO_GUARDED_BY(m_mutex){};
    Clock::duration m_pollPause NORVO_GUARDED_BY(m_mutex){};
    Clock::time_point m_lastLook NORVO_GUARDED_BY(m_mutex){};
};

}  // namespace NorvoStreamClient
