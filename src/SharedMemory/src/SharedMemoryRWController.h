#pragma once

#include <atomic>
#include <memory>
#include <thread>

#include "ActiveVirtualChannelAgentRecorder.h"
#include "Event.h"
#include "LocalMutex.h"

namespace shared_memory {

// Decides whether the segments of this process may read and write: not while another process is the
// active agent. One per process, created on first use and never destroyed, so that threads still
// running at process exit may use it. Thread-safe.
class SharedMemoryRWController {
public:
    static std::shared_ptr<SharedMemoryRWController> getInstance();
    SharedMemoryRWController(const SharedMemoryRWController&) = delete;
    SharedMemoryRWController& operator=(const SharedMemoryRWController&) = delete;
    ~SharedMemoryRWController();

    // As of the last look at the record, which is at most 500 ms old while the checker thread runs;
    // after shutdown() the last value.
    bool canRead() const { return m_canRead.load(std::memory_order_relaxed); }
    bool canWrite() const { return m_canWrite.load(std::memory_order_relaxed); }

    // The machine-wide record of the active agent (ActiveVirtualChannelAgentRecorder.h).
    bool hasOtherActiveVirtualChannelAgent();
    bool markCurrentVirtualChannelAgentAsActive();
    void clearActiveVirtualChannelAgent();

    // Checks, and starts the checker thread, unless it runs. Every segment calls this when it is
    // set up, so checking resumes for an agent built after another one's shutdown(). The thread
    // also frees what MemoryBlock keeps; without it nothing is kept. False, after a log line, when
    // the system refuses the thread.
    bool start();
    // Ends and joins the checker thread. May be called at any time, repeatedly.
    void shutdown();

private:
    SharedMemoryRWController();
    void check();
    void allow(bool isAllowed);
    // The checker thread's body.
    void checkActiveVirtualChannelAgent();

    VDIFrameworkCommon::ActiveVirtualChannelAgentRecorder m_recorder;
    std::atomic<bool> m_running{false};
    std::atomic<bool> m_canRead{true};
    std::atomic<bool> m_canWrite{true};
    VDIFrameworkCommon::Event m_event{true};
    VDIFrameworkCommon::LocalMutex m_threadMutex;
    std::thread m_checker NORVO_GUARDED_BY(m_threadMutex);
    // A thread does not survive a fork: only the process that started it may join it.
    long m_checkerProcess NORVO_GUARDED_BY(m_threadMutex) = 0;
};

}  // namespace shared_memory
