#include "IdleWatch.h"

#include <cstdio>

namespace hosts {

void IdleWatch::setActive(const Plugin& plugin, bool active) {
    m_isSilent = active;
    m_hasSaid = false;
    plugin.ChannelActive(active ? 1 : 0);
    m_due = Clock::now() + m_patience;
}

void IdleWatch::tellAgain(const Plugin& plugin) {
    if (Clock::now() < due()) return;
    say(plugin);
    plugin.ChannelActive(1);
    m_due = Clock::now() + m_patience;
}

void IdleWatch::say(const Plugin& plugin) {
    if (m_hasSaid) return;
    m_hasSaid = true;
    constexpr char kText[] =
        "the agent is silent; probably another one is active in this session's namespace, and this "
        "one waits for its end";
    std::fprintf(stderr, "%s: %s\n", NORVO_CHANNEL_NAME, kText);
    plugin.LogMessage_VDI(NORVO_LEVEL_WARNING, kText);
}

}  // namespace hosts
