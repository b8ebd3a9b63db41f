#pragma once

#include <optional>

namespace NorvoStreamClient {

// What a client knows of the agent. Not thread-safe.
//
// The agent is absent, there, or there and connected to a far end. What it says in "VCProcessId"
// may have been composed just before the agents found or lost each other and arrive just after the
// news of that. So where it contradicts what is known of the same agent, the state is only doubted,
// and believed when a second one says the same.
class AgentState {
public:
    enum class Phase { Absent, Apart, ApartDoubted, Connected, ConnectedDoubted };
    enum class Event { Answers, Silent, ChannelUp, ChannelDown, SaysConnected, SaysApart };

    // Each changes the state; the result is the new state of the connection when that changed.
    std::optional<bool> apply(Event event);
    // "VCProcessId": the agent's process and whether it is connected.
    std::optional<bool> hearProcess(unsigned int processId, bool connected);
    // This process stood still: another agent may have taken the place of the one that is known.
    void forgetProcess();

    bool isThere() const { return m_phase != Phase::Absent; }
    bool isConnected() const {
        return m_phase == Phase::Connected || m_phase == Phase::ConnectedDoubted;
    }
    bool isDoubted() const {
        return m_phase == Phase::ApartDoubted || m_phase == Phase::ConnectedDoubted;
    }
    // 0 while none has been heard.
    unsigned int processId() const { return m_processId; }
    // Grows whenever the agent was lost or another took its place.
    unsigned int generation() const { return m_generation; }

private:
    std::optional<bool> enter(Phase next);
    bool isConsistent() const;

    Phase m_phase = Phase::Absent;
    unsigned int m_processId = 0;
    unsigned int m_lastProcessId = 0;  // also after it was forgotten
    unsigned int m_generation = 0;
};

}  // namespace NorvoStreamClient
