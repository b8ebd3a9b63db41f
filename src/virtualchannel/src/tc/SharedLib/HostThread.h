#pragma once

#include <thread>

#include "LocalMutex.h"

namespace NorvoVirtualChannel::tc {

// Holds one thread that the host has started through the plug-in. Thread-safe.
class HostThread {
public:
    // Runs `entry` on a new thread; a null one is ignored. Ends the process if there is a thread
    // already. Throws std::system_error, "thread constructor failed", when no thread can be
    // created.
    void create(void (*entry)());
    // Joins and removes the thread; does nothing without one, or on the thread itself. The thread
    // has ended when any of several concurrent calls returns.
    void destroy();

private:
    VDIFrameworkCommon::LocalMutex m_mutex;
    VDIFrameworkCommon::LocalCondition m_joined;
    std::thread m_thread NORVO_GUARDED_BY(m_mutex);
    std::thread::id m_joining NORVO_GUARDED_BY(m_mutex);  // the thread that is being joined
};

}  // namespace NorvoVirtualChannel::tc
