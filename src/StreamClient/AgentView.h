#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "LocalMutex.h"
#include "NorvoStreamClient.h"

namespace NorvoStreamClient {

using Clock = std::chrono::steady_clock;

// What this process knows of the agent and its streams, from the notifications that it has heard,
// and what it should ask next. Knows no segment and no thread: both are its users'. Thread-safe.
class AgentView {
public:
    // False when the name is taken, or after close().
    bool addStream(const std::string& name, Direction direction, unsigned int capacity);
    void removeStream(const std::string& name);

    bool isUp(const std::string& name) const;
    bool waitUntilUp(const std::string& name, Clock::time_point deadline) const;
    bool isConnected() const;
    bool waitUntilConnected(Clock::time_point deadline) const;
    unsigned int agentProcessId() const;

    // Takes one notification in. The new state when it changed the connection.
    std::optional<bool> hear(const Notification& notification, Clock::time_point now);

    // The requests that are due now, as INFO texts, each to be sent once. Decides, too, that an
    // agent that has not been heard of for long is gone: `lost` is set when that ends a connection.
    std::vector<std::string> takeDue(Clock::time_point now, bool& lost);

    // Sleeps until something is due. False once closed.
    bool waitForWork() const;

    // Ends every wait, for good.
    void close();

private:
    struct Entry {
        Direction direction;
        unsigned int capacity;
        bool up = false;
        Clock::time_point nextRequest;  // while not up
    };

    std::optional<bool> setConnected(bool connected) NORVO_REQUIRES(m_mutex);
    std::optional<bool> hearProcessId(const Notification& notification, Clock::time_point now)
        NORVO_REQUIRES(m_mutex);
    void askAgain(Clock::time_point now) NORVO_REQUIRES(m_mutex);
    bool anyStreamDown() const NORVO_REQUIRES(m_mutex);
    Clock::time_point nextDue() const NORVO_REQUIRES(m_mutex);

    mutable VDIFrameworkCommon::LocalMutex m_mutex;
    mutable VDIFrameworkCommon::LocalCondition m_changed;
    std::map<std::string, Entry> m_streams NORVO_GUARDED_BY(m_mutex);
    bool m_closed NORVO_GUARDED_BY(m_mutex) = false;
    bool m_connected NORVO_GUARDED_BY(m_mutex) = false;
    unsigned int m_agentPid NORVO_GUARDED_BY(m_mutex) = 0;
    Clock::time_point m_lastHeard NORVO_GUARDED_BY(m_mutex);
    Clock::time_point m_nextHeartbeat NORVO_GUARDED_BY(m_mutex);
    Clock::time_point m_nextRollCall NORVO_GUARDED_BY(m_mutex);
    Clock::duration m_rollCallPause NORVO_GUARDED_BY(m_mutex){};
};

}  // namespace NorvoStreamClient
