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

// What this process knows of the agent and its streams, from the notifications that it has heard
// and from which requests the agent took, and what it should ask next. Knows no segment and no
// thread: both are its users'. Thread-safe.
//
// An agent shows that it is there by taking requests. An agent that does not take a request is
// considered gone: the connection ends, every stream is down, and a probe is made from time to time
// until an agent takes it. All that this process wants is then asked for again.
class AgentView {
public:
    // Something to send to the agent now; an empty text is a mere sign of life.
    struct Due {
        std::string text;
        std::string stream;                  // the stream it asks for, if any
        std::chrono::milliseconds patience;  // for the agent to take it
        Clock::time_point since;
    };
    struct Heard {
        std::optional<bool> connectionChange;  // the new state
        bool isNews;                           // worth telling to the program
    };

    struct Agent {
        unsigned int processId;
        unsigned int generation;  // grows whenever the agent was lost or replaced
    };

    // AlreadyOpen or Closed when it cannot be added.
    Status mayAddStream(const std::string& name) const;
    // The same when it fails.
    Status addStream(const std::string& name, Direction direction, unsigned int capacity);
    void removeStream(const std::string& name);

    bool isUp(const std::string& name) const { return static_cast<bool>(standing(name)); }
    // No failure when the stream is up, otherwise what it lacks: InUseOtherDirection, NoAgent,
    // NotConnected, NotTakenUp or Closed.
    Status standing(const std::string& name) const;
    // Waits until the stream is up, is found to be in use in the other direction, or is closed.
    Status waitUntilUp(const std::string& name, Clock::time_point deadline) const;
    bool isConnected() const;
    // NoAgent, NotConnected or Closed when it fails.
    Status waitUntilConnected(Clock::time_point deadline) const;
    // NoAgent or Closed; no failure when an agent is there.
    Status agentStanding() const;
    Agent agent() const;
    // The direction in which local processes use the stream `name`, as far as the agent has told;
    // if it has told only of `opposite`, the other one than that has. Waits until it tells of
    // either.
    std::optional<Direction> waitForDirection(const std::string& name, const std::string& opposite,
                                              Clock::time_point deadline) const;
    unsigned int agentProcessId() const { return agent().processId; }

    Heard hear(const Notification& notification, Clock::time_point now);
    // The program asks for the process ID itself: the answer is news even if it is the known one.
    void expectProcessId();

    // What to send now, if anything. Its fate must be told with finished() before the next call.
    std::optional<Due> due(Clock::time_point now);
    // The new state when that changed the connection.
    std::optional<bool> finished(const Due& request, bool taken, Clock::time_point now);
    // The agent may be gone: makes a sign of life due at once.
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
        bool otherDirection = false;      // so the agents carry it
        Clock::time_point nextRequest{};  // while not up; long ago: at once
    };

    // After each change of the state: what this process wants is asked for again if the connection
    // changed or another agent is there.
    std::optional<bool> follow(std::optional<bool> change, unsigned int processIdBefore)
        NORVO_REQUIRES(m_mutex);
    std::optional<bool> apply(AgentState::Event event) NORVO_REQUIRES(m_mutex);
    Status standingOf(const std::string& name) const NORVO_REQUIRES(m_mutex);
    Status connectionStanding() const NORVO_REQUIRES(m_mutex);
    std::optional<bool> hearProcessId(const Notification& notification, Clock::time_point now)
        NORVO_REQUIRES(m_mutex);
    void hearStreamUp(const Notification& notification, Clock::time_point now)
        NORVO_REQUIRES(m_mutex);
    std::optional<bool> losesAgent(Clock::time_point now) NORVO_REQUIRES(m_mutex);
    void askForAllAgain() NORVO_REQUIRES(m_mutex);
    void callTheRollSoon() NORVO_REQUIRES(m_mutex);
    void noticeStandstill(Clock::time_point now) NORVO_REQUIRES(m_mutex);
    bool wantsRollCall() const NORVO_REQUIRES(m_mutex);
    bool wantsProcessId() const NORVO_REQUIRES(m_mutex) {
        return !m_state.isThere() || m_state.processId() == 0 || m_state.isDoubted();
    }
    Clock::time_point nextDue() const NORVO_REQUIRES(m_mutex);
    std::chrono::milliseconds patience() const NORVO_REQUIRES(m_mutex);

    mutable VDIFrameworkCommon::LocalMutex m_mutex;
    mutable VDIFrameworkCommon::LocalCondition m_changed;
    std::map<std::string, Entry> m_streams NORVO_GUARDED_BY(m_mutex);
    bool m_closed NORVO_GUARDED_BY(m_mutex) = false;
    // Of every stream of which the agent has told since it was asked for all again.
    std::map<std::string, Direction> m_heardOf NORVO_GUARDED_BY(m_mutex);
    AgentState m_state NORVO_GUARDED_BY(m_mutex);
    bool m_expectsProcessId NORVO_GUARDED_BY(m_mutex) = false;
    Clock::time_point m_nextProcessId NORVO_GUARDED_BY(m_mutex){};
    Clock::time_point m_lastHeard NORVO_GUARDED_BY(m_mutex){};
    Clock::time_point m_nextSignOfLife NORVO_GUARDED_BY(m_mutex){};
    Clock::time_point m_nextRollCall NORVO_GUARDED_BY(m_mutex){};
    Clock::duration m_rollCallPause NORVO_GUARDED_BY(m_mutex){};
    Clock::time_point m_lastLook NORVO_GUARDED_BY(m_mutex){};
};

}  // namespace NorvoStreamClient
