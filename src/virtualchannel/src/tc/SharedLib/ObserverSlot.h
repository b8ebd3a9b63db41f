#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>

#include "LocalMutex.h"
#include "ReentryMark.h"
#include "VirtualChannel.h"

namespace NorvoVirtualChannel::tc {

// Whether an observer is called by one thread at a time.
enum class ObserverCalls { OneAtATime, Concurrent };

// Holds a channel's one observer, not owned. Thread-safe; no lock is held while the observer runs,
// and it may call back into the slot on its own thread.
class ObserverSlot {
public:
    explicit ObserverSlot(ObserverCalls calls) : m_calls(calls) {}

    // Replaces the observer; null removes it. With OneAtATime, other threads' calls of the old one
    // have ended on return.
    void set(Observer* observer);

    // Removes the observer and waits until no other thread is inside it. False when one still is
    // after `limit`.
    bool clearAndWait(std::chrono::milliseconds limit);

    // Calls `call` with the observer, if any. Returns whether there was one.
    template <class Call>
    bool notify(const Call& call) {
        Observer* const observer = enter();
        if (!observer) return false;
        const Visit visit(*this);
        call(*observer);
        return true;
    }

    // Without a lock: may be changing.
    bool isEmpty() const { return m_isEmpty; }

    // Whether the calling thread is inside the observer.
    bool insideOnThisThread() const { return ReentryMark::isSet(this); }

private:
    // Ends a call, also when it throws.
    class Visit {
    public:
        explicit Visit(ObserverSlot& slot) : m_slot(slot) { m_mark.emplace(&slot); }
        ~Visit() {
            m_mark.reset();  // leave() checks whether this was the thread's outermost call
            m_slot.leave();
        }
        Visit(const Visit&) = delete;
        Visit& operator=(const Visit&) = delete;

    private:
        ObserverSlot& m_slot;
        std::optional<ReentryMark> m_mark;
    };

    Observer* enter();
    void leave();
    bool takesTurns() const;
    void waitForTurn() NORVO_REQUIRES(m_mutex);
    void passTurnOn() NORVO_REQUIRES(m_mutex);
    void store(Observer* observer) NORVO_REQUIRES(m_mutex);

    const ObserverCalls m_calls;
    VDIFrameworkCommon::LocalMutex m_mutex;
    VDIFrameworkCommon::LocalCondition m_left;
    Observer* m_observer NORVO_GUARDED_BY(m_mutex) = nullptr;
    std::atomic<bool> m_isEmpty{true};
    // With OneAtATime, threads are served in order of arrival.
    std::uint64_t m_nextTicket NORVO_GUARDED_BY(m_mutex) = 0;
    std::uint64_t m_turn NORVO_GUARDED_BY(m_mutex) = 0;
    int m_inside NORVO_GUARDED_BY(m_mutex) = 0;  // running calls, nested ones included
};

}  // namespace NorvoVirtualChannel::tc
