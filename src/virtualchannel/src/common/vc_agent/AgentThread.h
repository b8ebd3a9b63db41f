#pragma once

#include <functional>
#include <system_error>
#include <thread>
#include <utility>

#include "SharedMemoryI.h"

namespace VirtualChannelAgent {

// Subscribes and says whether the segment's read thread could be started.
inline bool subscribe(shared_memory::SharedMemoryI& segment,
                      shared_memory::SharedMemoryObserverI* observer) {
    try {
        segment.subscribeObserver(observer);
    } catch (const std::system_error&) {
        return false;
    }
    return true;
}

// A thread with one owner. Not thread-safe: the owner's lock guards it.
class AgentThread {
public:
    AgentThread() = default;
    ~AgentThread() { join(); }
    AgentThread(const AgentThread&) = delete;
    AgentThread& operator=(const AgentThread&) = delete;

    // False when the system has no thread left to give.
    bool start(std::function<void()> body) {
        join();
        try {
            m_thread = std::thread(std::move(body));
        } catch (const std::system_error&) {
            return false;
        }
        return true;
    }

    // It has been started and not been joined yet.
    bool isRunning() const { return m_thread.joinable(); }

    void join() {
        if (m_thread.joinable()) m_thread.join();
    }

private:
    std::thread m_thread;
};

}  // namespace VirtualChannelAgent
