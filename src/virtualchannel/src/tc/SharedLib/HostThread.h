#pragma once

#include <thread>

#include "LocalMutex.h"

namespace NorvoVirtualChannel::tc {

// The place of one thread that the host has started through the plug-in. Thread-safe.
class HostThread {
public:
    // Runs `entry` on a new thread; nothing for a null one. Ends the process when the place is
    // taken. Throws std::system_error, "thread constructor failed", when the system has no thread.
    void create(void (*entry)());
    // Joins the thread and empties the place; nothing when it is empty, or on the thread itself.
    void destroy();

private:
    VDIFrameworkCommon::LocalMutex m_mutex;
    std::thread m_thread NORVO_GUARDED_BY(m_mutex);
};

}  // namespace NorvoVirtualChannel::tc
