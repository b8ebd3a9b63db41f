#pragma once

#include <optional>

namespace NorvoStreamClient {

// What a client knows about the agent. Not thread-safe.
//
// The agent is absent, present, or present and connected to its peer. A "VCProcessId" may have been
// composed just before the agents connected or disconnected and arrive just after that
// notification. So one that contradicts what is known about the same agent only puts the state in
// doubt; a second one that says the same is believed.
class AgentState {
public:
    enum class Phase { Absent, Apart, ApartDoubted, Connected, ConnectedDoubted };
    enum class Event { Answers, Silent, ChannelUp, ChannelDown, SaysConnected, SaysApart };

    // Each returns the new connection state if that changed.
    std::optional<bool> apply(Event event);
    // "VCProcessId": the agent's process and whether it is connected.
    std::optional<bool> hearProcess(unsigned int processId, bool connected);
    // This process was suspended: another agent may have replaced the known one.
    void forgetProcess();

    bool isThere() const { return m_phase != Phase::Absent; }
    bool isConnected() const {
        return m_phase == Phase::Connected || m_phase == Phase::ConnectedDoubted;
    }
    bool isDoubted() const {
        return m_phase == Phase::ApartDoubted || m_phase == Phase::ConnectedDoubted;
    }
    // 0 while unknown.
    unsigned int processId() const { return m_processId; }
    // Incremented whenever the agent is lost or replaced.
    unsigned int generation() const { return m_generation; }

private:
    std::optional<bool> enter(Phase next);
    bool isConsistent() const;

    Phase m_phase = Phase::Absent;
    unsigned int m_processId = 0;
    unsigned int m_lastProcessId = 0;  // kept when that is forgotten
    unsigned int m_generation = 0;
};

}  // namespace NorvoStreamClient
