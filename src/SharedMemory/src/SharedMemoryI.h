// One named shared-memory segment, as its users see it.
#pragma once

#include <memory>
#include <string>

#include "OpenFailure.h"

namespace VDIFrameworkCommon {
class StandIn;
}

namespace shared_memory {

class SharedMemoryI;

// Receives the messages of the segments it is subscribed to.
class SharedMemoryObserverI {
public:
    virtual ~SharedMemoryObserverI() = default;
    // One whole message; called on the segment's read thread. The observer may unsubscribe itself
    // from inside the call, but not destroy the segment.
    virtual void onNewMessageReceived(std::string message, SharedMemoryI* source) = 0;
    // A thread that may wait for a segment's messages in place of the read thread, and then calls
    // takeAtOnce(). Asked by the read thread of a segment that has no other observer.
    virtual std::shared_ptr<VDIFrameworkCommon::StandIn> standIn() { return {}; }
    // One whole message, on the stand-in's thread. Must neither wait nor call the segment. False:
    // not taken; onNewMessageReceived() gets it.
    virtual bool takeAtOnce(const std::string& /*message*/) { return false; }
};

// A segment is set up once, as writer (Create) or reader (Open). A failure is logged in one line
// and returned as false or an empty result, never thrown. Thread-safe.
class SharedMemoryI {
public:
    virtual ~SharedMemoryI() = default;

    // Sets up as the writer of segment `name` with a data area of `size` bytes; creates the segment
    // if there is none, and resets its message IDs.
    virtual bool Create(const std::string& name, unsigned int size) = 0;
    // Sets up as the reader; creates the segment if there is none. A waiting chunk is dropped.
    virtual bool Open(const std::string& name, unsigned int size) = 0;
    // Why the last Create or Open failed; OpenFailure::None when it did not.
    virtual OpenError openError() { return {}; }
    // Ends the read thread and unmaps the segment. The object stays in the system for the other
    // end.
    virtual bool Close() = 0;
    virtual std::string getName() = 0;

    // Writes one message of `length` bytes in as many chunks as needed. False when refused or when
    // a chunk could not be placed within 2000 ms (chunks already sent stay sent).
    virtual bool WriteData(const void* data, const unsigned int& length) = 0;
    // The same without waiting: false, with nothing sent, when the message cannot be placed at
    // once. A segment may always refuse.
    virtual bool TryWriteData(const void* /*data*/, unsigned int /*length*/) { return false; }
    // Waits up to `timeout` ms for a message. Empty, with `length` 0, when none arrived.
    virtual std::string ReadData(unsigned int& length, unsigned int timeout) = 0;

    // Observers are not owned. The first starts the read thread, the last to leave ends it. Once
    // unsubscribeObserver has returned on a thread other than the read thread, the observer is not
    // called again. subscribeObserver returns false, after one log line, when the read thread could
    // not be started: `observer` is not subscribed, and those that were are called again once a
    // later subscription starts the thread.
    virtual bool subscribeObserver(SharedMemoryObserverI* observer) = 0;
    virtual void unsubscribeObserver(SharedMemoryObserverI* observer) = 0;
    virtual void unsubscribeAllObservers() = 0;

    // Takes one whole message now. On true, `*data` is a new[] array of `length` bytes that the
    // caller deletes.
    virtual bool ReadData(void** data, unsigned int& length) = 0;
};

}  // namespace shared_memory
