#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <span>
#include <thread>
#include <vector>

#include "IdleWatch.h"
#include "PacketSplitter.h"
#include "Plugin.h"

namespace hosts {

// Calls the plug-in on a separate thread, in the order of the calls here, for a host whose own
// thread must not wait: ReceiveData may take some hundred milliseconds when a session is resumed.
// Asks an agent that idles
// again (IdleWatch.h). Thread-safe; only end() and the destructor wait.
class PluginThread {
public:
    // Limit of pending data in bytes. Data beyond it is dropped and logged, with everything that
    // follows until the pending data is passed on. No packet is joined across the gap.
    static constexpr std::size_t kMostPending = 4u << 20;

    // `plugin` is initialised; it and `idleWatch` outlive this object. Throws std::system_error
    // when out of threads.
    PluginThread(const Plugin& plugin, std::uint32_t maxPacket, IdleWatch& idleWatch);
    ~PluginThread();
    PluginThread(const PluginThread&) = delete;
    PluginThread& operator=(const PluginThread&) = delete;

    // Whether the channel can be used from now on. Drops pending data.
    void setActive(bool active);
    // Bytes of the channel, split in any way. They are copied.
    void receive(std::span<const unsigned char> bytes);
    // Shuts the plug-in down and ends the thread.
    void end();

private:
    void run();
    void waitForWork(std::unique_lock<std::mutex>& lock);
    void passOn(std::span<const unsigned char> bytes, std::uint64_t connection);

    const Plugin& m_plugin;
    PacketSplitter m_splitter;  // used only by the thread, as are the next two
    std::uint64_t m_skippedLogged = 0;
    IdleWatch& m_idleWatch;

    std::mutex m_mutex;  // guards the members below, up to the thread
    std::condition_variable m_changed;
    std::vector<unsigned char> m_data;
    std::vector<bool> m_states;
    bool m_ending = false;
    bool m_dropped = false;

    std::atomic<std::uint64_t> m_connection = 0;  // written under the mutex
    std::thread m_thread;
};

}  // namespace hosts
