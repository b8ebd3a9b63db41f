#include "WorkerThread.h"

#include <algorithm>
#include <new>
#include <utility>

#include "Contained.h"
#include "CpuRelax.h"
#include "CurrentCpu.h"
#include "Log.h"

namespace NorvoVirtualChannel::tc {

using VDIFrameworkCommon::AdaptiveSpin;
using VDIFrameworkCommon::contained;
using VDIFrameworkCommon::cpuRelax;
using VDIFrameworkCommon::currentCpu;
using VDIFrameworkCommon::LocalLock;
using VDIFrameworkCommon::StandIn;
using Clock = std::chrono::steady_clock;

namespace {
constexpr unsigned int kHighPriorityPerLow = 3;
constexpr int kLooksPerClockRead = 16;
constexpr int kMostOwedPauses = 8;
}  // namespace

WorkerThread::WorkerThread(Pause pause, WorkSource* source)
    : m_pause(std::move(pause)),
      m_source(source),
      m_standIn(std::make_shared<StandIn>([this] { signal(); })) {
    NORVO_LOG(Trace, "WorkerThread()");
}

WorkerThread::~WorkerThread() {
    Stop();
    m_standIn->close();  // streams may keep it longer than this lives
}

void WorkerThread::setPacketsToSendPerBreak(int packets) { m_packetsPerBreak = packets; }

void WorkerThread::setBreakTime(int milliseconds) { m_breakTime = milliseconds; }

void WorkerThread::Start() {
    NORVO_LOG(Trace, "WorkerThread::Start()");
    m_running = true;
    LocalLock joinLock(m_joinMutex);
    LocalLock workLock(m_workMutex);
    m_thread = std::thread(&WorkerThread::run, this);
    m_ended = false;
}

void WorkerThread::run() {
    m_threadId = std::this_thread::get_id();
    DoWork();
    // What was queued before a Stop() that came before the thread's first step or its last.
    drain();
    m_standIn->close();
    m_threadId = std::thread::id();
    LocalLock lock(m_workMutex);
    m_ended = true;
    m_endCondition.notify_all();
    m_idleCondition.notify_all();
}

void WorkerThread::AddWork(WorkItem item, bool lowPriority) {
    AddWork(std::span(&item, 1), lowPriority);
}

void WorkerThread::AddWork(std::span<WorkItem> items, bool lowPriority) {
    const bool isComplete = queue(items, lowPriority);
    signal();
    if (!isComplete) throw std::bad_alloc();
}

bool WorkerThread::queue(std::span<WorkItem> items, bool lowPriority) {
    NORVO_LOG(Trace, "WorkerThread::AddWork()");
    const bool isComplete = append(lowPriority, items);
    NORVO_LOG(Trace, "Size of work queue after adding an item: ", highPriorityQueueSize());
    return isComplete;
}

// False when there was no memory for all of them.
bool WorkerThread::push(Queue& queue, std::span<WorkItem> items) {
    try {
        for (WorkItem& item : items) {
            queue.items.push_back(std::move(item));
            NORVO_LOG(Trace, "AddWork --- ",
                      &queue == &m_lowPriority ? "LowPriority" : "HighPriority",
                      ", size = ", queue.items.size());
        }
    } catch (const std::exception&) {
        return false;
    }
    return true;
}

void WorkerThread::signal() {
    NORVO_LOG(Trace, "Signal mutex at AddWork()...");
    if (m_parked) wake();
    NORVO_LOG(Trace, "Unlock mutex at AddWork()...");
}

void WorkerThread::wake() {
    m_wokenAt.store(Clock::now(), std::memory_order_relaxed);
    m_wakerCpu.store(currentCpu(), std::memory_order_relaxed);
    { LocalLock lock(m_workMutex); }
    notify();
}

void WorkerThread::notify() {
    m_workCondition.notify_all();
    ++m_wakeUps;
    if (m_sleepsForOthers) VDIFrameworkCommon::wakeOne(m_wakeUps);
}

bool WorkerThread::append(bool lowPriority, std::span<WorkItem> items) {
    Queue& queue = queueOf(lowPriority);
    LocalLock lock(queue.mutex);
    const bool isComplete = push(queue, items);
    queue.size = queue.items.size();
    return isComplete;
}

void WorkerThread::addLowPriorityWork(WorkItem item) {
    if (!append(true, std::span(&item, 1))) throw std::bad_alloc();
}

void WorkerThread::addHighPriorityWork(WorkItem item) {
    if (!append(false, std::span(&item, 1))) throw std::bad_alloc();
}

WorkItem WorkerThread::pop(Queue& queue, const char* label) {
    LocalLock lock(queue.mutex);
    NORVO_LOG(Trace, "popWork --- ", label, ", size = ", queue.items.size());
    if (queue.items.empty()) return nullptr;
    WorkItem item = std::move(queue.items.front());
    queue.items.pop_front();
    queue.size.store(queue.items.size(), std::memory_order_release);
    return item;
}

WorkItem WorkerThread::popLowPriorityWork() { return pop(m_lowPriority, "LowPriority"); }

WorkItem WorkerThread::popHighPriorityWork() { return pop(m_highPriority, "HighPriority"); }

WorkItem WorkerThread::popWork() {
    const unsigned int streak = m_highPriorityStreak.load(std::memory_order_relaxed);
    if (streak == kHighPriorityPerLow) {
        m_highPriorityStreak.store(0, std::memory_order_relaxed);
        WorkItem item = popLowPriorityWork();
        return item ? std::move(item) : popHighPriorityWork();
    }
    m_highPriorityStreak.store(streak + 1, std::memory_order_relaxed);
    if (WorkItem item = popHighPriorityWork()) return item;
    m_highPriorityStreak.store(0, std::memory_order_relaxed);
    return popLowPriorityWork();
}

std::size_t WorkerThread::lowPriorityQueueSize() const {
    LocalLock lock(m_lowPriority.mutex);
    return m_lowPriority.items.size();
}

std::size_t WorkerThread::highPriorityQueueSize() const {
    LocalLock lock(m_highPriority.mutex);
    return m_highPriority.items.size();
}

int WorkerThread::DoWork() {
    NORVO_LOG(Trace, "WorkerThread::DoWork()");
    while (m_running) {
        NORVO_LOG(Trace, "About to lock work mutex at DoWork()...");
        if (QueueSize() != 0) {
            NORVO_LOG(Trace,
                      "The work queue is not empty, emptying it before waiting for it to be "
                      "filled.");
        } else {
            waitForWork();
        }
        NORVO_LOG(Trace, "Received a signal, about to empty the queue.");
        drain();
    }
    return 0;
}

void WorkerThread::waitForWork() {
    NORVO_LOG(Trace, "work Mutex locked at DoWork(), waiting for condition...");
    const Clock::time_point start = Clock::now();
    if (spinForWork(start)) {
        m_spin.notified(AdaptiveSpin::Duration::zero(), AdaptiveSpin::Duration::zero());
    } else {
        park(start);
    }
    NORVO_LOG(Trace, "work Mutex locked at DoWork(), END waiting for condition");
}

// Items in quick succession cost no wake-up.
bool WorkerThread::spinForWork(Clock::time_point start) const {
    const auto budget = m_spin.budget(m_wakerCpu.load(std::memory_order_relaxed), currentCpu());
    if (budget == AdaptiveSpin::Duration::zero()) return false;
    do {
        for (int i = 0; i < kLooksPerClockRead; ++i) {
            if (QueueSize() != 0 || m_standIn->isDue()) return true;
            cpuRelax();
        }
    } while (m_running && Clock::now() - start < budget);
    return false;
}

bool WorkerThread::mayPark() const {
    return m_running && QueueSize() == 0 && !(m_source && m_source->hasMore());
}

void WorkerThread::park(Clock::time_point start) {
    {
        LocalLock lock(m_workMutex);
        m_parked = true;
        m_idleCondition.notify_all();
        while (mayPark() && m_standIn->isEmpty()) m_workCondition.wait(m_workMutex);
    }
    if (!m_standIn->isEmpty()) parkForOthers();
    m_parked = false;
    const Clock::time_point end = Clock::now();
    m_spin.notified(end - start, end - m_wokenAt.load(std::memory_order_relaxed));
}

// Whoever gives the worker something to do finds one of the two flags set, or is found by
// mayPark().
void WorkerThread::parkForOthers() {
    m_sleepsForOthers = true;
    while (true) {
        const std::uint64_t wakeUps = m_wakeUps;
        if (!mayPark() || m_standIn->isDue() || m_standIn->isEmpty()) break;
        m_standIn->sleep({&m_wakeUps, wakeUps}, Clock::now() + std::chrono::hours(1));
    }
    m_sleepsForOthers = false;
}

void WorkerThread::drain() {
    m_highPriorityStreak.store(0, std::memory_order_relaxed);
    int countdown = m_packetsPerBreak;
    while (hasWork()) {
        if (const WorkItem item = popWork()) contained("Sending a packet", [&] { item->DoWork(); });
        NORVO_LOG(Trace, "Size of work queue after completing an item: ", highPriorityQueueSize());
        pauseIfDue(countdown);
    }
}

// Empty queues end a burst and its count towards the next pause, so refill them first.
bool WorkerThread::hasWork() {
    if (m_running) m_standIn->serve();
    if (m_source && m_running) m_source->refill(*this);
    return QueueSize() != 0;
}

void WorkerThread::pauseIfDue(int& countdown) {
    const int breakTime = m_breakTime;
    if (breakTime == 0) return;
    if (countdown != 0) {
        --countdown;
        return;
    }
    if (breakTime > 0) {
        const std::chrono::milliseconds time(breakTime);
        m_pause ? m_pause(time) : sleep(time);
    }
    countdown = m_packetsPerBreak - 1;
}

// A sleeping thread always wakes a little late, and at times much. The overrun is taken off the
// next pauses, at most half of each, so that the intended rate is reached.
void WorkerThread::sleep(std::chrono::milliseconds time) {
    const Clock::duration slack = std::min<Clock::duration>(m_overslept, time / 2);
    const Clock::time_point deadline = Clock::now() + time - slack;
    LocalLock lock(m_workMutex);
    bool due = false;
    while (!due && (m_running || QueueSize() != 0)) {
        due = !m_stopCondition.wait_until(m_workMutex, deadline);
    }
    const Clock::duration overrun = due ? Clock::now() - deadline : Clock::duration::zero();
    m_overslept = std::min<Clock::duration>(m_overslept - slack + overrun, kMostOwedPauses * time);
}

void WorkerThread::requestStop() {
    m_running = false;
    NORVO_LOG(Trace, "Sending signal to wake the work thread.");
    LocalLock lock(m_workMutex);
    notify();
    m_stopCondition.notify_all();
}

bool WorkerThread::onOwnThread() const { return m_threadId.load() == std::this_thread::get_id(); }

bool WorkerThread::waitUntilEnded(Clock::time_point deadline) {
    LocalLock lock(m_workMutex);
    while (!m_ended) {
        if (!m_endCondition.wait_until(m_workMutex, deadline) && !m_ended) return false;
    }
    return true;
}

void WorkerThread::join() {
    LocalLock lock(m_joinMutex);
    if (m_thread.joinable()) m_thread.join();
    NORVO_LOG(Trace, "Worker thread stopped.");
}

void WorkerThread::detach() {
    LocalLock lock(m_joinMutex);
    if (m_thread.joinable()) m_thread.detach();
}

void WorkerThread::Stop() {
    requestStop();
    if (onOwnThread()) return;
    while (!waitUntilEnded(Clock::now() + std::chrono::hours(1))) continue;
    join();
}

bool WorkerThread::StopWithin(std::chrono::milliseconds limit) {
    requestStop();
    if (onOwnThread() || !waitUntilEnded(Clock::now() + limit)) {
        detach();
        return false;
    }
    join();
    return true;
}

bool WorkerThread::WaitUntilIdle(std::chrono::milliseconds limit) {
    const Clock::time_point deadline = Clock::now() + limit;
    if (onOwnThread()) return false;
    LocalLock lock(m_workMutex);
    while (!m_ended && (!m_parked || QueueSize() != 0)) {
        if (!m_idleCondition.wait_until(m_workMutex, deadline)) return false;
    }
    return true;
}

void WorkerThread::ResetQueue() {
    NORVO_LOG(Trace, "WorkerThread::ResetQueue()");
    clear(m_highPriority);
    clear(m_lowPriority);
    NORVO_LOG(Trace, "Reset the work queue.");
}

void WorkerThread::clear(Queue& queue) {
    LocalLock lock(queue.mutex);
    queue.items.clear();  // another container, to empty it unlocked, would need memory
    queue.size = 0;
}

}  // namespace NorvoVirtualChannel::tc
