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

class WorkerThread;

// Where a worker looks for more to do, besides its queues.
class WorkSource {
public:
    virtual ~WorkSource() = default;
    // Queues what is due with AddWork(). Called on the worker's thread before it looks whether its
    // queues are empty, which is before each item: must be cheap when there is nothing to do.
    virtual void refill(WorkerThread& worker) = 0;
};

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
    // `source` (not owned; may be null) is asked while the worker is not stopped, and outlives it.
    explicit WorkerThread(Pause pause = {}, WorkSource* source = nullptr);
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
    // with one wake-up. Throws std::bad_alloc with the items that it could not queue still there.
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
    // The size of one queue, without its lock.
    std::size_t backlog(bool lowPriority) const {
        return (lowPriority ? m_lowPriority : m_highPriority).size.load(std::memory_order_relaxed);
    }

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

    // Waits until everything queued has been run. False when that takes longer than `limit`, and on
    // the worker's own thread.
    bool WaitUntilIdle(std::chrono::milliseconds limit);

private:
    struct Queue {
        mutable VDIFrameworkCommon::LocalMutex mutex;
        std::deque<WorkItem> items NORVO_GUARDED_BY(mutex);
        std::atomic<std::size_t> size{0};  // of items; written under the mutex
    };

    void run();
    Queue& queueOf(bool lowPriority) { return lowPriority ? m_lowPriority : m_highPriority; }
    void append(bool lowPriority, WorkItem item);
    void push(Queue& queue, WorkItem& item) NORVO_REQUIRES(queue.mutex);
    WorkItem pop(Queue& queue, const char* label);
    void clear(Queue& queue);
    void traceAndWake();
    void wake();
    void waitForWork();
    bool spinForWork(std::chrono::steady_clock::time_point start) const;
    void park(std::chrono::steady_clock::time_point start);
    void drain();
    bool hasWork();
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
    WorkSource* const m_source;
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
    VDIFrameworkCommon::LocalCondition m_idleCondition;
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
