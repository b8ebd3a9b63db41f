#pragma once

#include <memory>
#include <string>

#include "LocalMutex.h"
#include "ReadThread.h"
#include "SegmentSlot.h"
#include "SharedMemoryI.h"
#include "SharedMemoryRWController.h"
#include "SlotReader.h"
#include "SlotWriter.h"

namespace shared_memory {

// A segment over its parts: the slot (SegmentSlot.h), the end that this object is of it, and the
// read thread. A backend says where the memory and the clock come from, a variant what is done with
// the slot. Thread-safe: the operation lock is held while the slot is used, and before the
// segment's named mutex.
class SharedMemoryBase : public SharedMemoryI {
public:
    SharedMemoryBase();
    // The most derived class must have closed the segment by then.
    ~SharedMemoryBase() override = default;
    SharedMemoryBase(const SharedMemoryBase&) = delete;
    SharedMemoryBase& operator=(const SharedMemoryBase&) = delete;

    bool Create(const std::string& name, unsigned int size) override;
    bool Open(const std::string& name, unsigned int size) override;
    OpenError openError() override;
    // Refused inside an observer's call: the read thread cannot wait for its own end.
    bool Close() override;
    std::string getName() override;
    bool WriteData(const void* data, const unsigned int& length) override;
    // A message whose next chunk does not come within `timeout` is kept as far as it came; a later
    // call goes on with it. Takes at most 20 ms longer when another process holds the mutex.
    std::string ReadData(unsigned int& length, unsigned int timeout) override;
    void subscribeObserver(SharedMemoryObserverI* observer) override;
    void unsubscribeObserver(SharedMemoryObserverI* observer) override;
    void unsubscribeAllObservers() override;
    // Gives up after 2000 ms without a chunk, and keeps what it has as above.
    bool ReadData(void** data, unsigned int& length) override;

    // Bytes of the object of a segment with a data area of `capacity` bytes.
    static unsigned int CalculateSharedMemorySize(unsigned int capacity);

protected:
    enum class Mode { NotSetUp = 0, Writer = 1, Reader = 2 };

    // --- supplied by a backend
    // A monotonic clock in milliseconds, cut to 32 bits: compare differences.
    virtual unsigned int ElapsedMillisecond() = 0;
    // Atomic on words of the segment, also between processes.
    virtual long IncrementWithLocking(SharedWord* word) = 0;  // the new value
    virtual void DecrementWithLocking(SharedWord* word) = 0;
    virtual long ExcangeWithLocking(SharedWord* target, long value) = 0;  // the old value
    // Maps the segment and starts the end of `mode()`. False when it is open already or the system
    // refuses.
    virtual bool CreateOrOpen(const std::string& name, unsigned int size, bool bTryToCreate)
        NORVO_REQUIRES(m_operationLock) = 0;
    virtual bool CloseSharedMemory() NORVO_REQUIRES(m_operationLock) = 0;

    // --- changed by a variant
    // Whether a message waits; `update` makes a broadcast's last message seen.
    virtual bool NewMessage(bool update) NORVO_REQUIRES(m_operationLock);
    virtual SlotEnd& end(Mode mode) NORVO_REQUIRES(m_operationLock);
    virtual bool writeMessage(const void* data, unsigned int length)
        NORVO_REQUIRES(m_operationLock);
    virtual bool waitForMessage(unsigned int timeout) NORVO_REQUIRES(m_operationLock);
    // After it: takes the message, whose chunks follow each other within `silence` ms.
    virtual std::string takeMessage(unsigned int silence) NORVO_REQUIRES(m_operationLock);
    // Takes a message that waits, without waiting for it.
    virtual std::string takeMessageNow() NORVO_REQUIRES(m_operationLock);

    bool isOpen() const { return m_gate.isOpen(); }
    Mode mode() const { return m_mode.load(); }
    // Whether the segment is open and set up for `mode`; logs when not.
    bool mayOperate(Mode mode);
    // Whether this process may write now, and whether there is something to write; logs when not.
    bool mayWrite(const void* data) NORVO_REQUIRES(m_operationLock);
    bool HasObservers() const { return m_readThread.hasObservers(); }
    bool IsReadRunning() const { return m_readThread.isRunning(); }

    SlotGate m_gate;
    VDIFrameworkCommon::LocalMutex m_operationLock;
    SegmentSlot m_slot NORVO_GUARDED_BY(m_operationLock){m_gate};
    SlotReader m_reader NORVO_GUARDED_BY(m_operationLock){m_slot};
    SlotWriter m_writer NORVO_GUARDED_BY(m_operationLock){m_slot};

private:
    bool setUp(const std::string& name, unsigned int size, Mode mode);
    std::string readForObservers();
    bool canRead();
    bool follow(bool allowed, bool& last, const char* flag);
    void logIllegalOperation();

    std::atomic<Mode> m_mode{Mode::NotSetUp};
    // For getName(), which must not wait as long as a reader does.
    VDIFrameworkCommon::LocalMutex m_nameLock NORVO_ACQUIRED_AFTER(m_operationLock);
    std::string m_name NORVO_GUARDED_BY(m_nameLock);
    OpenError m_openError NORVO_GUARDED_BY(m_nameLock);
    const std::shared_ptr<SharedMemoryRWController> m_controller;
    // Only the read thread asks for the first.
    bool m_lastCanRead = true;
    bool m_lastCanWrite NORVO_GUARDED_BY(m_operationLock) = true;
    ReadThread m_readThread;
};

}  // namespace shared_memory
