#include "ConnectionState.h"

#include <algorithm>
#include <cassert>
#include <iterator>

namespace VirtualChannelAgent {

const ConnectionState::Transition& ConnectionState::next(Cause cause) const {
    using enum Phase;
    // clang-format off
    static constexpr Transition kTransitions[] = {
        // from, cause, to                                   ChannelUp  streams  threads
        {NeverConnected, Cause::Handshake, Connected,        true,      false,   true},
        {Connected,      Cause::Handshake, Connected,        false,     true,    false},
        {Lost,           Cause::Handshake, Connected,        true,      true,    true},
        {NeverConnected, Cause::Loss,      NeverConnected,   false,     false,   false},
        {Connected,      Cause::Loss,      Lost,             false,     false,   true},
        {Lost,           Cause::Loss,      Lost,             false,     false,   false},
    };
    // clang-format on
    return *std::find_if(std::begin(kTransitions), std::end(kTransitions), [&](const auto& each) {
        return each.from == m_phase && each.cause == cause;
    });
}

void ConnectionState::enter(const Transition& transition) {
    assert(transition.from == m_phase);
    m_phase = transition.to;
    m_connected = m_phase == Phase::Connected;
}

}  // namespace VirtualChannelAgent
