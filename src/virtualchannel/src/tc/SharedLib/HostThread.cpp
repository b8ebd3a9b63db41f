#include "HostThread.h"

#include <system_error>
#include <utility>

#include "PluginLog.h"

namespace NorvoVirtualChannel::tc {

using VDIFrameworkCommon::LocalLock;

void HostThread::create(void (*entry)()) {
    if (!entry) {
        logMessage(NORVO_LEVEL_WARNING, "no function to run on the new thread");
        return;
    }
    LocalLock lock(m_mutex);
    try {
        m_thread = std::thread(entry);
    } catch (const std::system_error& error) {
        throw std::system_error(error.code(), "thread constructor failed");
    }
}

void HostThread::destroy() {
    const std::thread::id caller = std::this_thread::get_id();
    LocalLock lock(m_mutex);
    if (m_thread.get_id() == caller || m_joining == caller) {
        logMessage(NORVO_LEVEL_WARNING, "a thread cannot wait for its own end");
        return;
    }
    while (m_joining != std::thread::id()) m_joined.wait(m_mutex);
    if (!m_thread.joinable()) return;
    m_joining = m_thread.get_id();
    std::thread thread = std::move(m_thread);
    lock.unlock();
    thread.join();
    lock.lock();
    m_joining = std::thread::id();
    m_joined.notify_all();
}

}  // namespace NorvoVirtualChannel::tc
