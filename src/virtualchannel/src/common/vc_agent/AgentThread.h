#pragma once

#include <exception>
#include <functional>
#include <thread>
#include <utility>

#include "Contained.h"

namespace VirtualChannelAgent {

// A thread with one owner. Not thread-safe: the owner's lock guards it.
class AgentThread {
public:
    AgentThread() = default;
    ~AgentThread() { join(); }
    AgentThread(const AgentThread&) = delete;
    AgentThread& operator=(const AgentThread&) = delete;

    // False when there is no thread or no memory. An exception from `body` ends the thread and is
    // logged.
    bool start(std::function<void()> body) {
        join();
        try {
            m_thread = std::thread([body = std::move(body)] {
                VDIFrameworkCommon::contained("A thread of the agent", body);
            });
        } catch (const std::exception&) {
            return false;
        }
        return true;
    }

    // Started and not yet joined.
    bool isRunning() const { return m_thread.joinable(); }

    void join() {
        if (m_thread.joinable()) m_thread.join();
    }

private:
    std::thread m_thread;
};

}  // namespace VirtualChannelAgent
