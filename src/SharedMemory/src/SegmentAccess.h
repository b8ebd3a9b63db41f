#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "LocalMutex.h"
#include "LogRepeats.h"
#include "SegmentSlot.h"
#include "SharedMemoryRWController.h"

namespace shared_memory {

// Decides what an object may do with its segment: from the end it was set up as, the gate, and what
// the controller allows this process. Refusals are logged unless noted. Also keeps what others may
// ask while the slot is in use: its name, and why it could not be set up. Thread-safe.
class SegmentAccess {
public:
    enum class Mode { NotSetUp = 0, Writer = 1, Reader = 2 };

    explicit SegmentAccess(const SlotGate& gate);

    void setMode(Mode mode) { m_mode = mode; }
    Mode mode() const { return m_mode.load(); }
    // Before a set-up, which must not happen if this returns false: the controller cannot check.
    bool startController();
    // After a set-up of segment `name`, which may have failed; returns `isReady`. Needs no memory.
    bool setUp(const SegmentSlot& slot, std::string name, bool isReady);
    // After one that failed for lack of memory. Returns false.
    bool refuse();
    std::string name();
    OpenError error();

    // Whether the segment is open and set up for `mode`.
    bool mayOperate(Mode mode);
    // Whether the controller lets this process read now. Changes are logged, refusals are not.
    bool mayRead();
    // The same for writing `data`, which must not be null; the segment must be open for writing.
    bool mayWrite(const void* data);
    void logIllegalOperation();

private:
    bool follow(bool allowed, std::atomic<bool>& last, const char* flag);

    const SlotGate& m_gate;
    const std::shared_ptr<SharedMemoryRWController> m_controller;
    std::atomic<Mode> m_mode{Mode::NotSetUp};
    std::atomic<bool> m_lastCanRead{true};
    std::atomic<bool> m_lastCanWrite{true};
    VDIFrameworkCommon::LocalMutex m_mutex;
    std::string m_name NORVO_GUARDED_BY(m_mutex);
    OpenError m_error NORVO_GUARDED_BY(m_mutex);
    KLT::kltlogger::LogRepeats m_illegal;
};

}  // namespace shared_memory
