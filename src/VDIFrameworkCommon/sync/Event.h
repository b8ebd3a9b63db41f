#pragma once

#include "LocalMutex.h"

namespace VDIFrameworkCommon {

// A flag that one thread sets and another waits for, inside one process. Starts unsignalled.
class Event {
public:
    // `autoReset`: a wait that ends because the event was set also resets it.
    explicit Event(bool autoReset) : m_autoReset(autoReset) {}
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;

    void set();
    // Waits for at most `milliseconds` (0 or less: only looks). True when the event was set.
    bool timedWait(long milliseconds);

private:
    const bool m_autoReset;
    LocalMutex m_mutex;
    LocalCondition m_condition;
    bool m_set NORVO_GUARDED_BY(m_mutex) = false;
};

}  // namespace VDIFrameworkCommon
