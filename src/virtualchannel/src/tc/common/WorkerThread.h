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
#include "StandIn.h"

namespace NorvoVirtualChannel::tc {

// One piece of work. Destroyed by the worker that ran or dropped it.
class WorkObject {
public:
    virtual ~WorkObject() = default;
    virtual int DoWork() = 0;
};

using WorkItem = std::unique_ptr<WorkObject>;

class WorkerThread;

// Supplies a worker with more work when its queues run low.
class WorkSource {
public:
    virtual ~WorkSource() = default;
    // Queues what is due with queue(). Called on the worker's thread before each item: must be
    // cheap when there is nothing to do.
    virtual void refill(WorkerThread& worker) = 0;
    // Whether refill() would queue something if the worker's queues were empty. When it becomes
    // true, signal() must follow. Called on the worker's thread, at times with a lock held.
    virtual bool hasMore() const = 0;
};

// Runs work items on its own thread, within a priority in the order they were queued. While both
// priorities have items, every fourth item is a low-priority one. Paces its output: with a break
// time set, it pauses after the first (packets to send per break + 1) items of a burst, then after
// every (packets to send per break) items.
//
// Thread-safe, with two exceptions: Start() is called once, and the worker is not destroyed on its
// own thread. No lock is held while an item runs or is destroyed.
class WorkerThread {
public:
    // Waits for the given time; called on the worker's thread.
    using Pause = std::function<void(std::chrono::milliseconds)>;

    // `pause` replaces the real pauses, which Stop() cuts short when nothing is left to send.
    // `source` (not owned; may be null) is polled until the worker is stopped, and must outlive it.
    explicit WorkerThread(Pause pause = {}, WorkSource* source = nullptr);
    // Stops the thread if the owner has not, and drops what is still queued.
    ~WorkerThread();
    WorkerThread(const WorkerThread&) = delete;
    WorkerThread& operator=(const WorkerThread&) = delete;

    // Set before Start(). A break time of 0 ms means no pauses.
    void setPacketsToSendPerBreak(int packets);
    void setBreakTime(int milliseconds);

    // Throws std::system_error when no thread can be created. Starting a running worker ends the
    // process.
    void Start();

    // An empty item is queued and skipped.
    void AddWork(WorkItem item, bool lowPriority);
    // Queues all items in order and contiguously, with one wake-up, and leaves them empty. On
    // std::bad_alloc the items that could not be queued are still there.
    void AddWork(std::span<WorkItem> items, bool lowPriority);
    // The same without the wake-up; false instead of std::bad_alloc. signal() must follow, once the
    // caller has released what the thread will want: it may run at once, in place of the caller.
    [[nodiscard]] bool queue(std::span<WorkItem> items, bool lowPriority);
    // Wakes the thread if it waits for work of a queue or the source.
    void signal();

    // Like AddWork(), without the wake-up.
    void addLowPriorityWork(WorkItem item);
    void addHighPriorityWork(WorkItem item);

    // Return null when the queue is empty.
    WorkItem popLowPriorityWork();
    WorkItem popHighPriorityWork();
    // The next item in the order in which the worker runs them. Counts towards that order.
    WorkItem popWork();

    std::size_t lowPriorityQueueSize() const;
    std::size_t highPriorityQueueSize() const;
    std::size_t QueueSize() const { return m_highPriority.size + m_lowPriority.size; }
    // The size of one queue, without its lock.
    std::size_t backlog(bool lowPriority) const {
        return (lowPriority ? m_lowPriority : m_highPriority).size.load(std::memory_order_relaxed);
    }

    // The thread's body: returns 0 once the worker is stopped and what was queued has been run.
    int DoWork();

    // Lets the thread run what is queued, then joins it. On the worker's own thread, only asks it
    // to end. Items added later stay queued.
    void Stop();
    // The same, but waits at most `limit`, or not at all on the worker's own thread. False when the
    // thread has not ended by then: it ends by itself once the running item returns and the queues
    // are empty, and the destructor waits for that.
    bool StopWithin(std::chrono::milliseconds limit);

    // What others leave it to wait for is served on its thread, before each item and when there is
    // none.
    std::shared_ptr<VDIFrameworkCommon::StandIn> standIn() const { return m_standIn; }

    // Drops everything queued, without running it.
    void ResetQueue();

    // Waits until everything queued has been run. False after `limit`, and on the worker's own
    // thread.
    bool WaitUntilIdle(std::chrono::milliseconds limit);

private:
    struct Queue {
        mutable VDIFrameworkCommon::LocalMutex mutex;
        std::deque<WorkItem> items NORVO_GUARDED_BY(mutex);
        std::atomic<std::size_t> size{0};  // of items; written under the mutex
    };

    void run();
    Queue& queueOf(bool lowPriority) { return lowPriority ? m_lowPriority : m_highPriority; }
    bool append(bool lowPriority, std::span<WorkItem> items);
    bool push(Queue& queue, std::span<WorkItem> items) NORVO_REQUIRES(queue.mutex);
    WorkItem pop(Queue& queue, const char* label);
    void clear(Queue& queue);
    void wake();
    void notify();
    void waitForWork();
    bool spinForWork(std::chrono::steady_clock::time_point start) const;
    void park(std::chrono::steady_clock::time_point start);
    void drain();
    bool hasWork();
    void parkForOthers();
    bool mayPark() const;
    void pauseIfDue(int& countdown);
    void sleep(std::chrono::milliseconds time);
    void requestStop();
    bool onOwnThread() const;
    bool waitUntilEnded(std::chrono::steady_clock::time_point deadline);
    void join();
    void detach();

    Queue m_highPriority;
    Queue m_lowPriority;

    std::atomic<bool> m_running{false};
    std::atomic<int> m_packetsPerBreak{0};
    std::atomic<int> m_breakTime{0};
    // High-priority items taken in a row.
    std::atomic<unsigned int> m_highPriorityStreak{0};

    const Pause m_pause;
    WorkSource* const m_source;
    // By how much pauses have overrun that is not made up for yet; worker's thread only.
    std::chrono::steady_clock::duration m_overslept{0};

    // A thread that fills a queue, gives the source more or changes m_running and then finds
    // m_parked set locks and unlocks this mutex before it notifies. The worker sets m_parked before
    // it checks the three a last time. So it cannot miss a change between its check and its wait.
    // Taken before a queue's mutex, never after.
    VDIFrameworkCommon::LocalMutex m_workMutex;
    VDIFrameworkCommon::LocalCondition m_workCondition;
    VDIFrameworkCommon::LocalCondition m_stopCondition;
    VDIFrameworkCommon::LocalCondition m_endCondition;
    VDIFrameworkCommon::LocalCondition m_idleCondition;
    bool m_ended NORVO_GUARDED_BY(m_workMutex) = true;
    std::atomic<bool> m_parked{false};
    // While it stands in for others the worker waits for this word instead of the condition.
    std::atomic<bool> m_sleepsForOthers{false};
    VDIFrameworkCommon::WaitWord m_wakeUps{0};
    const std::shared_ptr<VDIFrameworkCommon::StandIn> m_standIn;

    VDIFrameworkCommon::AdaptiveSpin m_spin;
    // When and on which processor the parked worker was last notified.
    std::atomic<std::chrono::steady_clock::time_point> m_wokenAt{};
    std::atomic<int> m_wakerCpu{-1};

    VDIFrameworkCommon::LocalMutex m_joinMutex;
    std::thread m_thread NORVO_GUARDED_BY(m_joinMutex);
    std::atomic<std::thread::id> m_threadId{};
};

}  // namespace NorvoVirtualChannel::tc
