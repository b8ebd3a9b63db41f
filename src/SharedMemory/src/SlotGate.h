#pragma once

#include <atomic>
#include <string>

#include "LocalMutex.h"
#include "NamedCondition.h"

namespace shared_memory {

// Whether a slot may be used, as other threads than its user see it, and the way to end its user's
// waits. Thread-safe.
class SlotGate {
public:
    // --- by the slot
    // Handles of its own on the slot's conditions: a notification counts for a wait that begins
    // after it only when another handle made it.
    void attach(const std::string& readCondition, const std::string& writeCondition);
    void open() { m_open = true; }

    // --- by anyone
    bool isOpen() const { return m_open.load(); }
    // Whether the user may go on waiting.
    bool isPassable() const { return m_open.load() && !m_halted.load(); }
    // Ends the user's waits, and lets later ones end at once; resume() takes it back.
    void halt();
    void resume() { m_halted = false; }
    // The same for good. False when it was closed before.
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
