#include "PluginThread.h"

#include <cstdio>
#include <utility>

namespace hosts {

PluginThread::PluginThread(const Plugin& plugin, std::uint32_t maxPacket, IdleWatch& idleWatch)
    : m_plugin(plugin),
      m_splitter(maxPacket, 16 * maxPacket),
      m_idleWatch(idleWatch),
      m_thread([this] { run(); }) {}

PluginThread::~PluginThread() { end(); }

void PluginThread::setActive(bool active) {
    {
        std::lock_guard lock(m_mutex);
        m_data.clear();
        m_dropped = false;
        m_states.push_back(active);
        ++m_connection;
    }
    m_changed.notify_one();
}

void PluginThread::receive(std::span<const unsigned char> bytes) {
    bool dropped = false;
    {
        std::lock_guard lock(m_mutex);
        // Only one gap, after the pending data, so its position is known.
        if (!m_dropped && m_data.size() + bytes.size() <= kMostPending)
            m_data.insert(m_data.end(), bytes.begin(), bytes.end());
        else
            dropped = !std::exchange(m_dropped, true);
    }
    m_changed.notify_one();
    if (dropped)
        m_plugin.LogMessage_VDI(NORVO_LEVEL_WARNING,
                                "the plug-in lags by 4 MiB: what comes now is dropped");
}

void PluginThread::end() {
    {
        std::lock_guard lock(m_mutex);
        m_ending = true;
        m_data.clear();
        ++m_connection;
    }
    m_changed.notify_one();
    if (m_thread.joinable()) m_thread.join();
}

void PluginThread::run() {
    std::vector<unsigned char> data;
    std::vector<bool> states;
    std::unique_lock lock(m_mutex);
    for (;;) {
        waitForWork(lock);
        data.swap(m_data);
        states.swap(m_states);
        const bool ending = m_ending;
        const std::uint64_t connection = m_connection;
        const bool dropped = std::exchange(m_dropped, false);
        lock.unlock();

        if (!states.empty()) m_splitter.reset();
        for (const bool state : states) m_idleWatch.setActive(m_plugin, state);
        m_idleWatch.tellAgain(m_plugin);
        passOn(data, connection);
        if (dropped) m_splitter.resetInside();
        if (ending) {
            m_plugin.Shutdown();
            return;
        }
        data.clear();
        states.clear();
        lock.lock();
    }
}

void PluginThread::waitForWork(std::unique_lock<std::mutex>& lock) {
    const auto hasWork = [&] {
        return m_ending || m_dropped || !m_data.empty() || !m_states.empty();
    };
    const auto due = m_idleWatch.due();
    if (due == IdleWatch::Clock::time_point::max()) return m_changed.wait(lock, hasWork);
    m_changed.wait_until(lock, due, hasWork);
}

void PluginThread::passOn(std::span<const unsigned char> bytes, std::uint64_t connection) {
    m_splitter.add(bytes, [&](unsigned char* packet, std::uint32_t length) {
        if (m_connection == connection) m_plugin.ReceiveData(packet, length);
    });
    if (m_splitter.skipped() > m_skippedLogged) {
        m_skippedLogged = m_splitter.skipped();
        char text[80];
        std::snprintf(text, sizeof text, "bytes of the channel that are no packet's, so far: %llu",
                      static_cast<unsigned long long>(m_skippedLogged));
        m_plugin.LogMessage_VDI(NORVO_LEVEL_WARNING, text);
    }
}

}  // namespace hosts
