// The order of one agent's locks, checked by Clang's thread-safety analysis.
//
// A rank is not a lock but a place in the order. Take locks with OrderedLock, which names the
// lock's rank too. An operation that takes locks declares it with a NORVO_TAKES_ macro; it cannot
// be called while a later rank is held.
#pragma once

#include "LocalMutex.h"

namespace VirtualChannelAgent::lock_order {

class NORVO_CAPABILITY("rank") Rank {};

inline Rank lifecycle;                                    // stop() and the destructor
inline Rank attachment NORVO_ACQUIRED_AFTER(lifecycle);   // entering and leaving a channel
inline Rank transition NORVO_ACQUIRED_AFTER(attachment);  // connecting and disconnecting
inline Rank creation NORVO_ACQUIRED_AFTER(transition);    // making a stream and its segment
inline Rank service NORVO_ACQUIRED_AFTER(creation);       // starting and ending one stream
inline Rank streams NORVO_ACQUIRED_AFTER(service);        // the stream table
inline Rank leaf NORVO_ACQUIRED_AFTER(streams);  // queues and small values: nothing follows

class NORVO_SCOPED_CAPABILITY OrderedLock {
public:
    OrderedLock(VDIFrameworkCommon::LocalMutex& mutex, Rank& rank) NORVO_ACQUIRE(mutex, rank)
        : m_mutex(mutex) {
        static_cast<void>(rank);
        m_mutex.lock();
    }
    ~OrderedLock() NORVO_RELEASE() { m_mutex.unlock(); }
    OrderedLock(const OrderedLock&) = delete;
    OrderedLock& operator=(const OrderedLock&) = delete;

private:
    VDIFrameworkCommon::LocalMutex& m_mutex;
};

}  // namespace VirtualChannelAgent::lock_order

#define NORVO_TAKES_LEAF NORVO_EXCLUDES(::VirtualChannelAgent::lock_order::leaf)
#define NORVO_TAKES_STREAMS \
    NORVO_EXCLUDES(::VirtualChannelAgent::lock_order::streams) NORVO_TAKES_LEAF
#define NORVO_TAKES_SERVICE \
    NORVO_EXCLUDES(::VirtualChannelAgent::lock_order::service) NORVO_TAKES_STREAMS
#define NORVO_TAKES_CREATION \
    NORVO_EXCLUDES(::VirtualChannelAgent::lock_order::creation) NORVO_TAKES_SERVICE
#define NORVO_TAKES_TRANSITION \
    NORVO_EXCLUDES(::VirtualChannelAgent::lock_order::transition) NORVO_TAKES_CREATION
