#include "AgentState.h"

#include <cassert>

namespace NorvoStreamClient {

namespace {

using Phase = AgentState::Phase;
using Event = AgentState::Event;

// clang-format off
constexpr Phase kNext[5][6] = {
    // from                Answers                  Silent         ChannelUp         ChannelDown   SaysConnected        SaysApart
    /* Absent */           {Phase::Apart,            Phase::Absent, Phase::Connected, Phase::Apart, Phase::Connected,    Phase::Apart},
    /* Apart */            {Phase::Apart,            Phase::Absent, Phase::Connected, Phase::Apart, Phase::ApartDoubted, Phase::Apart},
    /* ApartDoubted */     {Phase::ApartDoubted,     Phase::Absent, Phase::Connected, Phase::Apart, Phase::Connected,    Phase::Apart},
    /* Connected */        {Phase::Connected,        Phase::Absent, Phase::Connected, Phase::Apart, Phase::Connected,    Phase::ConnectedDoubted},
    /* ConnectedDoubted */ {Phase::ConnectedDoubted, Phase::Absent, Phase::Connected, Phase::Apart, Phase::Connected,    Phase::Apart},
};
// clang-format on

Phase next(Phase from, Event event) {
    return kNext[static_cast<int>(from)][static_cast<int>(event)];
}

}  // namespace

std::optional<bool> AgentState::enter(Phase next) {
    const bool before = isConnected();
    if (next == Phase::Absent) {
        m_generation += isThere() ? 1 : 0;
        m_processId = 0;
    }
    m_phase = next;
    assert(isConsistent());
    return before == isConnected() ? std::nullopt : std::optional<bool>(isConnected());
}

bool AgentState::isConsistent() const {
    if (m_phase == Phase::Absent) return m_processId == 0;
    return !isDoubted() || m_processId != 0;
}

std::optional<bool> AgentState::apply(Event event) { return enter(next(m_phase, event)); }

std::optional<bool> AgentState::hearProcess(unsigned int processId, bool connected) {
    if (processId == 0) return std::nullopt;  // no process has it
    const Event says = connected ? Event::SaysConnected : Event::SaysApart;
    if (processId == m_processId) return apply(says);
    const bool isAnother = m_lastProcessId != 0 && m_lastProcessId != processId;
    m_generation += isAnother ? 1 : 0;
    m_processId = m_lastProcessId = processId;
    // A connection was reported by a notification, which may be newer than the first answer.
    return enter(next(isAnother || !isConnected() ? Phase::Absent : m_phase, says));
}

void AgentState::forgetProcess() {
    m_processId = 0;
    if (isDoubted()) enter(isConnected() ? Phase::Connected : Phase::Apart);
}

}  // namespace NorvoStreamClient
