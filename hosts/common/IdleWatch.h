#pragma once

#include <atomic>
#include <chrono>

#include "Plugin.h"

namespace hosts {

// Tells the plug-in whether the channel can be used. An agent that is told so beside another active
// one stays idle for good, and sends nothing; then this says so on standard error and in the log,
// and tells it again until it sends: it takes over once the other one has ended. One thread, unless
// stated.
class IdleWatch {
public:
    using Clock = std::chrono::steady_clock;

    static constexpr std::chrono::milliseconds kPatience{5000};

    explicit IdleWatch(Clock::duration patience = kPatience) : m_patience(patience) {}

    void setActive(const Plugin& plugin, bool active);
    // The agent sends a packet. Any thread.
    void noteSent() {
        if (m_isSilent.load(std::memory_order_relaxed)) m_isSilent = false;
    }
    // When to call tellAgain(); Clock::time_point::max() for never.
    Clock::time_point due() const { return m_isSilent ? m_due : Clock::time_point::max(); }
    // Does nothing before it is due.
    void tellAgain(const Plugin& plugin);

private:
    void say(const Plugin& plugin);

    const Clock::duration m_patience;
    Clock::time_point m_due;
    bool m_hasSaid = false;
    std::atomic<bool> m_isSilent = false;  // has sent nothing since the channel can be used
};

}  // namespace hosts
