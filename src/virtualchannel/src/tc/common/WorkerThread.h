#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <span>
#include <thread>

#include "AdaptiveSpin.h"
#include "LocalMutex.h"

namespace NorvoVirtualChannel::tc {

// One piece of work. The worker that ran it, or dropped it unrun, destroys it.
class WorkObject {
public:
    virtual ~WorkObject() = default;
    virtual int DoWork() = 0;
};

using WorkItem = std::unique_ptr<WorkObject>;

// Runs work items on one thread of its own, in the order they were queued within a priority; while
// both priorities wait, every fourth item is a low-priority one. Paces its output: with a break
// time set, it pauses after the first (packets to send per break + 1) items of a burst and then
// after every (packets to send per break) items.
//
// Thread-safe, with two exceptions: Start() is called once, and the worker is not destroyed on its
// own thread. No lock is held while an item runs or is destroyed.
class WorkerThread {
public:
    // Waits that long; called on the worker's thread.
    using Pause = std::function<void(std::chrono::milliseconds)>;

    // `pause` stands in for the real pauses, which Stop() cuts short when nothing is left to send.
    explicit WorkerThread(Pause pause = {});
    // Stops the thread when the owner has not, and drops what is still queued.
    ~WorkerThread();
    WorkerThread(const WorkerThread&) = delete;
    WorkerThread& operator=(const WorkerThread&) = delete;

    // Meant to be set before Start(). A break time of 0 ms means no pauses at all.
    void setPacketsToSendPerBreak(int packets);
    void setBreakTime(int milliseconds);

    // Throws std::system_error when the system has no thread to give. Starting a worker that runs
    // ends the process.
    void Start();

    // An empty item is queued and skipped.
    void AddWork(WorkItem item, bool lowPriority);
    // Takes all items, which are left empty, and queues them in their order, next to each other,
    // with one wake-up.
    void AddWork(std::span<WorkItem> items, bool lowPriority);

    // The steps of AddWork() without the wake-up.
    void addLowPriorityWork(WorkItem item);
    void addHighPriorityWork(WorkItem item);

    // Empty when the queue is.
    WorkItem popLowPriorityWork();
    WorkItem popHighPriorityWork();
    // The next item in the order the worker runs them. Counts towards that order.
    WorkItem popWork();

    std::size_t lowPriorityQueueSize() const;
    std::size_t highPriorityQueueSize() const;
    std::size_t QueueSize() const { return m_queued.load(std::memory_order_relaxed); }

    // The thread's body: returns 0 once the worker is stopped and what was queued has been run.
    int DoWork();

    // Lets the thread run what is queued, and joins it. Called on the worker's own thread, it only
    // asks the thread to end. Items added later stay queued.
    void Stop();
    // The same, but gives up waiting after `limit`, or at once on the worker's own thread: false
    // when the thread has not ended by then. It ends by itself as soon as the running item returns
    // and the queues are empty, and the destructor waits for that.
    bool StopWithin(std::chrono::milliseconds limit);

    // Drops everything queued, unrun.
    void ResetQueue();

private:
    struct Queue {
        mutable VDIFrameworkCommon::LocalMutex mutex;
        std::deque<WorkItem> items NORVO_GUARDED_BY(mutex);
    };

    void run();
    void append(Queue& queue, WorkItem item, const char* label);
    WorkItem pop(Queue& queue, const char* label);
    void clear(Queue& queue);
    void traceAndWake();
    void wake();
    void waitForWork();
    bool spinForWork(std::chrono::steady_clock::time_point start) const;
    void park(std::chrono::steady_clock::time_point start);
    void drain();
    void pauseIfDue(int& countdown);
    void sleep(std::chrono::milliseconds time);
    void requestStop();
    bool onOwnThread() const;
    bool endsUntil(std::chrono::steady_clock::time_point deadline);
    void join();
    void letGo();

    Queue m_highPriority;
    Queue m_lowPriority;
    // Items in both queues; written under the lock of the queue that changes.
    std::atomic<std::size_t> m_queued{0};

    std::atomic<bool> m_running{false};
    std::atomic<int> m_packetsPerBreak{0};
    std::atomic<int> m_breakTime{0};
    // High-priority items taken in a row.
    std::atomic<unsigned int> m_highPriorityStreak{0};

    const Pause m_pause;
    // How much longer than asked the last pause took; only on the worker's thread.
    std::chrono::steady_clock::duration m_overslept{0};

    // Whoever changes m_queued or m_running and then finds m_parked set passes through the mutex
    // before notifying; the worker sets m_parked before it looks at the two a last time. So a
    // thread between its look and its wait misses nothing. Taken before a queue's mutex, never
    // after.
    VDIFrameworkCommon::LocalMutex m_workMutex;
    VDIFrameworkCommon::LocalCondition m_workCondition;
    VDIFrameworkCommon::LocalCondition m_stopCondition;
    VDIFrameworkCommon::LocalCondition m_endCondition;
    bool m_ended NORVO_GUARDED_BY(m_workMutex) = true;
    std::atomic<bool> m_parked{false};

    VDIFrameworkCommon::AdaptiveSpin m_spin;
    // When and on which processor the parked worker was last notified.
    std::atomic<std::chrono::steady_clock::time_point> m_wokenAt{};
    std::atomic<int> m_wakerCpu{-1};

    VDIFrameworkCommon::LocalMutex m_joinMutex;
    std::thread m_thread NORVO_GUARDED_BY(m_joinMutex);
    std::atomic<std::thread::id> m_threadId{};
};

}  // namespace NorvoVirtualChannel::tc
