#include "HostThread.h"

#include <system_error>
#include <utility>

#include "PluginLog.h"

namespace NorvoVirtualChannel::tc {

using VDIFrameworkCommon::LocalLock;

void HostThread::create(void (*entry)()) {
    if (!entry) {
        logMessage(host_level::kWarning, "no function to run on the new thread");
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
    std::thread thread;
    {
        LocalLock lock(m_mutex);
        if (m_thread.get_id() == std::this_thread::get_id()) {
            logMessage(host_level::kWarning, "a thread cannot wait for its own end");
            return;
        }
        thread.swap(m_thread);
    }
    if (thread.joinable()) thread.join();
}

}  // namespace NorvoVirtualChannel::tc
