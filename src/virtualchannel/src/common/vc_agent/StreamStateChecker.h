#pragma once

#include <atomic>

#include "AgentContext.h"
#include "AgentThread.h"
#include "Event.h"
#include "LockOrder.h"

namespace VirtualChannelAgent {

// While the agents are connected, asks the peer every 3 s for its end of each unconfirmed stream.
class StreamStateChecker {
public:
    explicit StreamStateChecker(AgentContext& context) : m_context(context) {}

    // False when the thread could not be started.
    bool start() NORVO_REQUIRES(lock_order::transition);
    // Does not wait for the thread to end; stop() does.
    void requestStop() { m_running = false; }
    void stop() NORVO_REQUIRES(lock_order::transition);
    bool isRunning() const NORVO_REQUIRES(lock_order::transition) { return m_thread.isRunning(); }

private:
    void CheckStreamStatesThread() NORVO_TAKES_CREATION;
    void askAgain() NORVO_TAKES_STREAMS;

    AgentContext& m_context;
    std::atomic<bool> m_running{false};
    VDIFrameworkCommon::Event m_wake{true};
    AgentThread m_thread NORVO_GUARDED_BY(lock_order::transition);
};

}  // namespace VirtualChannelAgent
