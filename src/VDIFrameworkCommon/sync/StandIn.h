// One thread that waits in place of others.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <vector>

#include "LocalMutex.h"
#include "WaitOnAddress.h"

namespace VDIFrameworkCommon {

// What a thread waits for, together with the memory in which the word lies.
struct Awaited {
    AddressWait wait;
    std::shared_ptr<const void> memory;
};

// A wait that its thread, the owner, has left to a stand-in. Either of them may end that, at any
// time. Thread-safe.
class LeftWait {
public:
    // Called on the stand-in's thread when the word has changed: does without waiting what the
    // owner would have done, and says what to wait for next. False: the wait is given back.
    using Serve = std::function<bool(Awaited& next)>;
    LeftWait(Awaited awaited, Serve serve)
        : m_awaited(std::move(awaited)), m_serve(std::move(serve)) {}
    LeftWait(const LeftWait&) = delete;
    LeftWait& operator=(const LeftWait&) = delete;

    // --- any thread
    void giveBack();

    // --- the owner's thread
    // Whether it was given back, after at most `limit`.
    bool waitUntilReturned(std::chrono::milliseconds limit);
    // Afterwards it is not being served, and never will be.
    void takeBack();

    // --- the stand-in's thread
    const AddressWait& awaited() const { return m_awaited.wait; }
    bool isDue() const { return m_awaited.wait.word->load() != m_awaited.wait.expected; }
    // False once it has been given back or taken back.
    bool serve();
    bool isBack();

private:
    Awaited m_awaited;
    const Serve m_serve;
    LocalMutex m_mutex;
    LocalCondition m_changed;
    bool m_isServing NORVO_GUARDED_BY(m_mutex) = false;
    bool m_isBack NORVO_GUARDED_BY(m_mutex) = false;
};

// The waits left to one thread, which waits for something of its own, too. Each saves the wake-up
// of its owner, whose work is done in passing. Thread-safe; the thread itself calls what is marked
// so.
class StandIn {
public:
    // More would make each sleep of the thread longer than what they save.
    static constexpr std::size_t kMostWaits = 8;

    // `wake` makes the thread return from a sleep; called with a lock held.
    explicit StandIn(std::function<void()> wake);
    StandIn(const StandIn&) = delete;
    StandIn& operator=(const StandIn&) = delete;

    // False when there are too many, after close(), and where the system cannot wait for several
    // words.
    bool accept(const std::shared_ptr<LeftWait>& wait);
    bool isEmpty() const { return m_count.load() == 0; }
    void giveAllBack();
    // The same, and accepts no more. `wake` is not called afterwards.
    void close();

    // --- the stand-in's thread
    bool isDue();
    // Serves each wait whose word has changed.
    void serve();
    // Sleeps until a word changes, among them `own`, or until `deadline`. May return spuriously.
    void sleep(const AddressWait& own, WaitClock::time_point deadline);

private:
    using Waits = std::vector<std::shared_ptr<LeftWait>>;

    void follow();
    void forget(const std::shared_ptr<LeftWait>& wait);

    LocalMutex m_mutex;
    std::function<void()> m_wake NORVO_GUARDED_BY(m_mutex);
    Waits m_waits NORVO_GUARDED_BY(m_mutex);
    std::atomic<std::size_t> m_count{0};  // of m_waits; written under the mutex
    std::atomic<std::uint64_t> m_changes{0};
    // The thread's own copy, and the number of changes it includes.
    Waits m_known;
    std::uint64_t m_knownChanges = 0;
    WaitClock::time_point m_lookedAt{};
};

}  // namespace VDIFrameworkCommon
