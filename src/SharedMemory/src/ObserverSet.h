#pragma once

#include <atomic>
#include <memory>
#include <set>
#include <string>
#include <thread>

#include "LocalMutex.h"
#include "SharedMemoryI.h"

namespace shared_memory {

// The observers of one segment, not owned, each held once. Thread-safe. No lock is held while an
// observer is called, so it may change the set from inside the call.
class ObserverSet {
public:
    void insert(SharedMemoryObserverI* observer);
    // Returns once the observer is no longer being called, unless called from within that call.
    void erase(SharedMemoryObserverI* observer);
    void eraseAll();
    bool empty() const { return m_empty.load(); }

    // Calls each observer in the set's order; the last gets `message` itself, the others a copy. An
    // exception is logged; the other observers still get the message.
    void deliver(std::string message, SharedMemoryI* source);

    // The stand-in of the only observer, if it has one.
    std::shared_ptr<VDIFrameworkCommon::StandIn> standIn();
    // Whether the only observer took the message at once.
    bool deliverAtOnce(const std::string& message);

private:
    struct Call {
        SharedMemoryObserverI* observer = nullptr;
        bool isLast = false;
    };
    // Begins the call of the observer after `previous` (null: the first); of none at the end.
    Call beginCallAfter(SharedMemoryObserverI* previous);
    void endCall();

    VDIFrameworkCommon::LocalMutex m_mutex;
    VDIFrameworkCommon::LocalCondition m_callEnded;
    std::set<SharedMemoryObserverI*> m_observers NORVO_GUARDED_BY(m_mutex);
    SharedMemoryObserverI* m_called NORVO_GUARDED_BY(m_mutex) = nullptr;
    std::thread::id m_caller NORVO_GUARDED_BY(m_mutex);
    std::atomic<bool> m_empty{true};
};

}  // namespace shared_memory
