#include "ReadThread.h"

#include <unistd.h>

#include <utility>

#include "Contained.h"

namespace shared_memory {

namespace {
constexpr unsigned int kPauseAfterFailureMs = 100;
// How long to wait at a time: a message, a stop and a close end the wait. What notifies nobody, as
// a removed object, is found this late; later after three waits that brought nothing.
constexpr unsigned int kWaitMs = 200;
constexpr unsigned int kQuietWaitMs = 1000;
constexpr unsigned int kWaitsUntilQuiet = 3;

// Messages further apart than this come one by one; after so many of them the wait is left to a
// stand-in.
constexpr std::chrono::microseconds kSpacing{25};
constexpr unsigned int kSpacedReadsToLeave = 12;
}  // namespace

using VDIFrameworkCommon::Awaited;
using VDIFrameworkCommon::LeftWait;
using VDIFrameworkCommon::LocalLock;
using Clock = std::chrono::steady_clock;

bool ReadThread::subscribe(SharedMemoryObserverI* observer) {
    const bool isSubscribed = VDIFrameworkCommon::contained("Subscribing an observer", [&] {
        m_observers.insert(observer);
        follow();
    });
    // The caller may destroy it.
    if (!isSubscribed) m_observers.erase(observer);
    return isSubscribed;
}

void ReadThread::unsubscribe(SharedMemoryObserverI* observer) {
    m_observers.erase(observer);
    follow();
}

void ReadThread::unsubscribeAll() {
    m_observers.eraseAll();
    follow();
}

// Starts the thread if there are observers, else ends it. On the thread there is nothing to do: it
// checks the observers after each call.
void ReadThread::follow() {
    if (isCurrent()) return;
    LocalLock thread(m_threadMutex);
    if (!hasObservers()) end();
    // An observer may have subscribed from inside its last call.
    if (hasObservers()) start();
}

void ReadThread::start() {
    {
        LocalLock ending(m_endMutex);
        if (m_isRunning) return;
    }
    end();
    m_isRunning = true;
    m_process = getpid();
    try {
        m_thread = std::thread(&ReadThread::run, this);
    } catch (...) {
        m_isRunning = false;
        throw;
    }
}

void ReadThread::end() {
    const bool wasRunning = m_isRunning.exchange(false);
    if (wasRunning) {
        m_stopEvent.set();
        m_gate.halt();
        setLeft(nullptr);
    }
    // A thread does not survive a fork: only the process that started it may join it.
    if (m_thread.joinable()) m_process == getpid() ? m_thread.join() : m_thread.detach();
    if (wasRunning) m_gate.resume();
}

void ReadThread::stop() {
    LocalLock thread(m_threadMutex);
    end();
}

void ReadThread::run() {
    m_id = std::this_thread::get_id();
    unsigned int vainWaits = 0;
    while (m_isRunning && !endsByItself()) {
        bool isBack = false;
        VDIFrameworkCommon::contained("Leaving the wait to another thread",
                                      [&] { isBack = leaveWait(); });
        if (isBack) {
            vainWaits = 0;
            readOnce(0);  // what was written before the wait came back notifies nobody again
            continue;
        }
        const bool isQuiet = vainWaits >= kWaitsUntilQuiet;
        vainWaits = readOnce(isQuiet ? kQuietWaitMs : kWaitMs) ? 0 : vainWaits + (isQuiet ? 0 : 1);
    }
    m_id = std::thread::id();
}

bool ReadThread::readOnce(unsigned int wait) {
    bool hasCome = false;
    const bool done = VDIFrameworkCommon::contained("Reading for the observers", [&] {
        const auto start = Clock::now();
        std::string message = m_source.read(wait);
        hasCome = !message.empty();
        if (hasCome) countSpacedRead(message.size(), Clock::now() - start);
        if (m_isRunning && hasCome) m_observers.deliver(std::move(message), &m_segment);
    });
    if (!done) pause(kPauseAfterFailureMs);
    return hasCome;
}

void ReadThread::countSpacedRead(std::size_t length, Clock::duration waited) {
    m_spacedReads = length <= kLargestAtOnce && waited >= kSpacing ? m_spacedReads + 1 : 0;
}

// ---- The stand-in

bool ReadThread::leaveWait() {
    if (m_spacedReads < kSpacedReadsToLeave) return false;
    m_spacedReads = 0;
    const auto standIn = m_observers.standIn();
    auto awaited = standIn ? m_source.beginWait() : std::nullopt;
    if (!awaited) return false;
    const auto wait = std::make_shared<LeftWait>(std::move(*awaited),
                                                 [this](Awaited& next) { return serve(next); });
    setLeft(wait);
    if (!standIn->accept(wait)) return false;
    waitUntilBack(*wait);
    setLeft(nullptr);
    if (m_isRunning && !m_notTaken.empty()) m_observers.deliver(std::move(m_notTaken), &m_segment);
    m_notTaken.clear();
    return true;
}

// A stand-in has little room, and only this thread finds out what notifies nobody: it looks once a
// second, and takes back a wait that has brought nothing since.
void ReadThread::waitUntilBack(LeftWait& wait) {
    constexpr std::chrono::milliseconds kLook{kQuietWaitMs};
    std::uint64_t served = m_served;
    while (m_isRunning && !wait.waitUntilReturned(kLook)) {
        const std::uint64_t before = std::exchange(served, m_served);
        if (served == before) break;
    }
    wait.takeBack();
}

// On the stand-in's thread.
bool ReadThread::serve(Awaited& next) {
    if (!m_isRunning) return false;
    const bool isHurried = Clock::now() - m_servedAt < kSpacing;
    std::string message = m_source.readAtOnce();
    if (message.empty()) return false;
    if (!m_observers.deliverAtOnce(message)) {
        m_notTaken = std::move(message);
        return false;
    }
    ++m_served;
    m_servedAt = Clock::now();
    auto awaited = isHurried ? std::nullopt : m_source.beginWait();
    if (awaited) next = std::move(*awaited);
    return awaited.has_value();
}

// Replaces what end() has to give back.
void ReadThread::setLeft(std::shared_ptr<LeftWait> wait) {
    LocalLock lock(m_leftMutex);
    if (m_left) m_left->giveBack();
    m_left = std::move(wait);
}

bool ReadThread::endsByItself() {
    LocalLock ending(m_endMutex);
    const bool ends = !hasObservers() || !m_source.isReadable();
    if (ends) m_isRunning = false;
    return ends;
}

}  // namespace shared_memory
