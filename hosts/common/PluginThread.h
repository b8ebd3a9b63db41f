#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <span>
#include <thread>
#include <vector>

#include "PacketSplitter.h"
#include "Plugin.h"

namespace hosts {

// Calls the plug-in on a thread of its own, in the order of the calls here, for a host whose own
// thread must not wait: ReceiveData may take some hundred milliseconds when a session is taken up
// again. Thread-safe; no call here waits, but for end() and the destructor.
class PluginThread {
public:
    // Data that have not been passed on: what a peer sends beyond that is dropped and logged, with
    // all that follows until they have been. No packet is joined from what was before and after.
    static constexpr std::size_t kMostPending = 4u << 20;

    // `plugin` is initialised, and outlives this object. Throws std::system_error when there is no
    // thread to be had.
    PluginThread(const Plugin& plugin, std::uint32_t maxPacket);
    ~PluginThread();
    PluginThread(const PluginThread&) = delete;
    PluginThread& operator=(const PluginThread&) = delete;

    // The channel can be used from here on, or no more. Data that are pending are dropped.
    void setActive(bool active);
    // Bytes of the channel, cut and joined in any way. They are copied.
    void receive(std::span<const unsigned char> bytes);
    // Shuts the plug-in down and ends the thread.
    void end();

private:
    void run();
    void passOn(std::span<const unsigned char> bytes, std::uint64_t connection);

    const Plugin& m_plugin;
    PacketSplitter m_splitter;  // the thread's alone, as is the next
    std::uint64_t m_skippedLogged = 0;

    std::mutex m_mutex;  // guards what follows up to the thread
    std::condition_variable m_changed;
    std::vector<unsigned char> m_data;
    std::vector<bool> m_states;
    bool m_ending = false;
    bool m_dropped = false;

    std::atomic<std::uint64_t> m_connection = 0;  // written under the mutex
    std::thread m_thread;
};

}  // namespace hosts
