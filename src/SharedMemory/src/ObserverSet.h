#pragma once

#include <atomic>
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
    // Returns when the observer is not being called any more, unless the caller is that call.
    void erase(SharedMemoryObserverI* observer);
    void eraseAll();
    bool empty() const { return m_empty.load(); }

    // Calls each observer in the set's order; the last gets `message` itself, the others a copy.
    // What one throws is logged and keeps the message from none of the others.
    void deliver(std::string message, SharedMemoryI* source);

private:
    struct Call {
        SharedMemoryObserverI* observer = nullptr;
        bool isLast = false;
    };
    // The call of the observer after `previous` (the first after null); of none at the end.
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
