#pragma once

#include <atomic>
#include <string>

#include "LocalMutex.h"
#include "NamedCondition.h"

namespace shared_memory {

// Tells other threads whether a slot may be used, and ends the waits of the slot's user.
// Thread-safe.
class SlotGate {
public:
    // --- by the slot
    // Opens its own handles on the slot's conditions: a notification satisfies a later wait only
    // when another handle made it.
    void attach(const std::string& readCondition, const std::string& writeCondition);
    void open() { m_open = true; }

    // --- by anyone
    bool isOpen() const { return m_open.load(); }
    // Whether the user may continue to wait.
    bool isPassable() const { return m_open.load() && !m_halted.load(); }
    // Ends the user's waits, and makes later ones end at once; resume() undoes it.
    void halt();
    void resume() { m_halted = false; }
    // The same, permanently. False when it was already closed.
    bool close();

private:
    void wake();

    std::atomic<bool> m_open{false};
    std::atomic<bool> m_halted{false};
    VDIFrameworkCommon::LocalMutex m_mutex;
    VDIFrameworkCommon::NamedCondition m_written NORVO_GUARDED_BY(m_mutex);
    VDIFrameworkCommon::NamedCondition m_taken NORVO_GUARDED_BY(m_mutex);
};

}  // namespace shared_memory
