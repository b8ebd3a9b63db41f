#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "Event.h"
#include "LocalMutex.h"
#include "MessageAssembler.h"
#include "NamedCondition.h"
#include "NamedMutex.h"
#include "ObserverSet.h"
#include "SegmentRegistry.h"
#include "SharedMemoryI.h"
#include "SharedMemoryLayout.h"
#include "SharedMemoryRWController.h"

// The segment protocol over an abstract backend.
//
// A segment is a mailbox with one slot. It holds an unread chunk while the new message ID is
// greater than the read message ID and is free while they are equal. The named mutex guards the two
// IDs; chunk header and data are only touched by whom the IDs allow to. The read condition says
// that a chunk was written, the write condition that one was consumed.
//
// Thread-safe. Locks, in this order: operation lock, wait lock, named mutex. The mapping is made
// and taken away under the operation lock and the wait lock, so either keeps it in place.
class SharedMemoryBase : public SharedMemoryI {
public:
    SharedMemoryBase();
    // The most derived class must have closed the segment by then.
    ~SharedMemoryBase() override;
    SharedMemoryBase(const SharedMemoryBase&) = delete;
    SharedMemoryBase& operator=(const SharedMemoryBase&) = delete;

    bool Create(const std::string& name, unsigned int size) override;
    bool Open(const std::string& name, unsigned int size) override;
    // Refused inside an observer's call: the read thread cannot wait for its own end.
    bool Close() override;
    std::string getName() override;
    shared_memory::OpenError openError() override;
    bool WriteData(const void* data, const unsigned int& length) override;
    // A message whose next chunk does not come within `timeout` is kept as far as it came; a later
    // call goes on with it.
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

    // --- supplied by a backend ---
    // A monotonic clock in milliseconds, cut to 32 bits: compare differences.
    virtual unsigned int ElapsedMillisecond() = 0;
    // Atomic on words of the segment, also between processes.
    virtual long IncrementWithLocking(SharedWord* word) = 0;  // the new value
    virtual void DecrementWithLocking(SharedWord* word) = 0;
    virtual long ExcangeWithLocking(SharedWord* target, long value) = 0;  // the old value
    // Maps the segment and calls mapped(). False when it is open already or the system refuses.
    virtual bool CreateOrOpen(const std::string& name, unsigned int size, bool bTryToCreate) = 0;
    // Unmaps what was mapped.
    virtual bool CloseSharedMemory() = 0;

    // --- changed by a variant ---
    // Whether an unread chunk waits.
    virtual bool NewMessage(bool update);
    // The same with the named mutex held; ends a reader's wait.
    virtual bool isUnread();
    // How long a chunk waits for the slot to be free, in milliseconds.
    virtual unsigned int writeWait() const { return 2000; }
    // Takes the message that waits, and the chunks of it that follow within `silence` ms each.
    virtual bool receive(std::string& message, unsigned int silence) NORVO_REQUIRES(m_waitLock);
    // WriteData under the operation lock.
    virtual bool writeMessage(const void* data, unsigned int length)
        NORVO_REQUIRES(m_operationLock);
    // The last steps of Create and Open: both IDs become 0; what waits is dropped. With the named
    // mutex held since before the writer is woken, so that it writes nothing that Open would drop.
    virtual void startWriting();
    virtual void startReading();
    // Called by Close while the segment is still mapped, with both locks held.
    virtual void leave() {}

    // --- for backend and variants ---
    void mapped(void* address, unsigned int capacity);
    void setOpenError(const shared_memory::OpenError& error);
    void* address() const { return m_address; }
    unsigned int capacity() const { return m_capacity; }
    // Null unless mapped.
    SharedMemoryHeader* header() const { return m_header; }
    char* dataArea() const { return m_data; }
    bool isOpen() const { return m_open.load(); }

    // Whether the segment is open and set up for `mode`; logs when not.
    bool mayOperate(Mode mode);
    // Whether the controller allows writing; logs a change.
    bool canWrite() NORVO_REQUIRES(m_operationLock);
    bool HasObservers() const { return !m_observers.empty(); }
    bool IsReadRunning() const { return m_readRunning.load(); }
    // A reader should return at once: its read thread is being stopped.
    bool isReadingStopped() const;
    // How many chunks this reader has taken so far.
    unsigned long chunksTaken() const { return m_chunksTaken.load(std::memory_order_relaxed); }
    Mode mode() const { return m_mode.load(); }
    bool waitForChunk(unsigned int timeout) NORVO_REQUIRES(m_waitLock);
    // False, after a log line, when it could not be had.
    bool lockNamedMutex();
    void logIllegalOperation();

    VDIFrameworkCommon::LocalMutex m_operationLock;
    VDIFrameworkCommon::LocalMutex m_waitLock NORVO_ACQUIRED_AFTER(m_operationLock);
    VDIFrameworkCommon::NamedMutex m_mutex;
    VDIFrameworkCommon::NamedCondition m_readCondition;
    VDIFrameworkCommon::NamedCondition m_writeCondition;
    // Written under both locks.
    std::string m_name;

private:
    enum class Taken { Message, Part, Nothing };

    // Set-up
    bool setUp(const std::string& name, unsigned int size, Mode mode);
    bool createSynchronization(Mode mode);
    bool createObjects(Mode mode);
    void enterRegistry(Mode mode);
    void start(Mode mode) NORVO_REQUIRES(m_operationLock, m_waitLock);
    void MapSMAreaPointers();

    // IDs and waits
    void ResetSynchronizationID();
    bool SetNewMessageID();
    // False when the slot does not hold any more what isUnread() has seen.
    bool SetReadMessageID();
    bool WaitWritable(unsigned int timeout);
    bool WaitForData(unsigned int timeout);
    // Waits first and tests then: without a notification, only when the time is over.
    template <class Test>
    bool waitFor(VDIFrameworkCommon::NamedCondition& condition, unsigned int timeout, Test test)
        NORVO_REQUIRES(m_waitLock);
    void logLockTaken();

    // Writing
    bool writeChunk(const ChunkHeader& chunk, const char* bytes);
    void clearBehind(unsigned int length);

    // Reading
    // Takes the chunk that waits and those that follow it within `silence` ms each.
    bool takeMessage(std::string& message, unsigned int silence) NORVO_REQUIRES(m_waitLock);
    Taken takeChunk(std::string& message) NORVO_REQUIRES(m_waitLock);
    void dropPartialMessage() NORVO_REQUIRES(m_waitLock);

    // Read thread
    void readThreadProcedure();
    void readOnce() NORVO_REQUIRES(m_operationLock);
    bool canRead() NORVO_REQUIRES(m_operationLock);
    bool endsReadThread();
    void notifyObserverMessageReceived(std::string message);
    bool isOnReadThread() const { return m_readThreadId.load() == std::this_thread::get_id(); }
    void followObservers();
    void startReadThread() NORVO_REQUIRES(m_threadLock);
    void endReadThread() NORVO_REQUIRES(m_threadLock);
    void stopReadThread();

    // For getName(), which must not wait as long as a reader does.
    VDIFrameworkCommon::LocalMutex m_nameLock;
    shared_memory::OpenError m_openError NORVO_GUARDED_BY(m_nameLock);
    shared_memory::SegmentRegistry m_registry;
    std::atomic<Mode> m_mode{Mode::NotSetUp};
    std::atomic<bool> m_open{false};
    void* m_address = nullptr;
    unsigned int m_capacity = 0;
    SharedMemoryHeader* m_header = nullptr;
    char* m_data = nullptr;
    // What lies behind the last chunk in the data area is zero.
    bool m_restIsClear = false;

    // The new message ID at which a chunk was last found unread.
    long m_unreadId = 0;
    MessageAssembler m_assembler NORVO_GUARDED_BY(m_waitLock);
    std::atomic<unsigned long> m_chunksTaken{0};

    ObserverSet m_observers;
    const std::shared_ptr<SharedMemoryRWController> m_controller;
    bool m_lastCanRead NORVO_GUARDED_BY(m_operationLock) = true;
    bool m_lastCanWrite NORVO_GUARDED_BY(m_operationLock) = true;

    VDIFrameworkCommon::Event m_stopEvent{true};
    std::atomic<bool> m_readRunning{false};
    // Set while the read thread runs, also while it is being stopped.
    std::atomic<std::thread::id> m_readThreadId;
    // Held to start and to join the read thread, which itself never takes it.
    VDIFrameworkCommon::LocalMutex m_threadLock;
    // Held by the read thread while it decides to end by itself.
    VDIFrameworkCommon::LocalMutex m_endLock;
    std::thread m_readThread NORVO_GUARDED_BY(m_threadLock);
};
