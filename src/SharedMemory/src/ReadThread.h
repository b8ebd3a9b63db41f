#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "Event.h"
#include "LocalMutex.h"
#include "ObserverSet.h"
#include "SlotGate.h"
#include "StandIn.h"

namespace shared_memory {

// The observers of a segment, and the thread that reads for them: it runs while there are any and
// the segment can be read. Thread-safe. No lock is held while an observer is called.
//
// While small messages come one by one, it leaves its wait to the observer's stand-in, if there is
// one: that thread then takes them, and this one is not woken. It is again as soon as they come in
// quick succession, when two threads get more done.
class ReadThread {
public:
    struct Source {
        // Whether the segment can be read; otherwise the thread ends.
        std::function<bool()> isReadable;
        // Waits at most so many milliseconds for a message; empty when none arrived. Returns at
        // once when `gate` is halted.
        std::function<std::string(unsigned int)> read;
        // For a stand-in: what to wait for, unless a message may have come, or the segment cannot
        // be used at once.
        std::function<std::optional<VDIFrameworkCommon::Awaited>()> beginWait;
        // Takes, without waiting, a message of at most kLargestAtOnce bytes. Empty when that is not
        // possible: it can still be read.
        std::function<std::string()> readAtOnce;
    };
    static constexpr unsigned int kLargestAtOnce = 16 * 1024;

    ReadThread(SharedMemoryI& segment, SlotGate& gate, Source source)
        : m_segment(segment), m_gate(gate), m_source(std::move(source)) {}
    ~ReadThread() { stop(); }
    ReadThread(const ReadThread&) = delete;
    ReadThread& operator=(const ReadThread&) = delete;

    // False, after one log line, when the thread could not be started: not subscribed then.
    bool subscribe(SharedMemoryObserverI* observer);
    // Returns once the observer is no longer being called, unless called from within that call.
    void unsubscribe(SharedMemoryObserverI* observer);
    void unsubscribeAll();
    bool hasObservers() const { return !m_observers.empty(); }

    // Ends the thread but keeps the observers; the next subscription restarts it. Not to be called
    // on the thread itself.
    void stop();
    bool isRunning() const { return m_isRunning.load(); }
    bool isCurrent() const { return m_id.load() == std::this_thread::get_id(); }
    // For the source: sleeps, at most until stop().
    void pause(unsigned int milliseconds) {
        m_stopEvent.timedWait(static_cast<long>(milliseconds));
    }

private:
    void follow();
    void start() NORVO_REQUIRES(m_threadMutex);
    void end() NORVO_REQUIRES(m_threadMutex);
    void run();
    // Whether a message came within `wait` ms.
    bool readOnce(unsigned int wait);
    void countSpacedRead(std::size_t length, std::chrono::steady_clock::duration waited);
    // Whether the wait was left to a stand-in, and has come back.
    bool leaveWait();
    void waitUntilBack(VDIFrameworkCommon::LeftWait& wait);
    bool serve(VDIFrameworkCommon::Awaited& next);
    void setLeft(std::shared_ptr<VDIFrameworkCommon::LeftWait> wait);
    bool endsByItself();

    SharedMemoryI& m_segment;
    SlotGate& m_gate;
    const Source m_source;
    ObserverSet m_observers;
    // How many messages in a row have come one by one; the thread's own.
    unsigned int m_spacedReads = 0;
    // By the one of the two threads that has the wait.
    std::chrono::steady_clock::time_point m_servedAt;
    std::string m_notTaken;
    std::atomic<std::uint64_t> m_served{0};
    VDIFrameworkCommon::LocalMutex m_leftMutex;
    std::shared_ptr<VDIFrameworkCommon::LeftWait> m_left NORVO_GUARDED_BY(m_leftMutex);
    VDIFrameworkCommon::Event m_stopEvent{true};
    std::atomic<bool> m_isRunning{false};
    // Set while the thread runs, also while it is being stopped.
    std::atomic<std::thread::id> m_id;
    // Held by the thread while it decides to end by itself.
    VDIFrameworkCommon::LocalMutex m_endMutex;
    // Held to start and to join the thread, which itself never takes it.
    VDIFrameworkCommon::LocalMutex m_threadMutex;
    std::thread m_thread NORVO_GUARDED_BY(m_threadMutex);
    long m_process NORVO_GUARDED_BY(m_threadMutex) = 0;
};

}  // namespace shared_memory
