#pragma once

#include <optional>
#include <string>

#include "LocalMutex.h"
#include "ReadThread.h"
#include "SegmentAccess.h"
#include "SegmentSlot.h"
#include "SharedMemoryI.h"
#include "SlotReader.h"
#include "SlotWriter.h"

namespace shared_memory {

// A segment and its parts: the slot (SegmentSlot.h), this object's end of it, and the read thread.
// A backend supplies the memory and the clock; a variant defines the use of the slot. Thread-safe:
// the operation lock is held while the slot is used, and taken before the segment's named mutex.
class SharedMemoryBase : public SharedMemoryI {
public:
    SharedMemoryBase();
    // The most derived class must have closed the segment by then.
    ~SharedMemoryBase() override = default;
    SharedMemoryBase(const SharedMemoryBase&) = delete;
    SharedMemoryBase& operator=(const SharedMemoryBase&) = delete;

    bool Create(const std::string& name, unsigned int size) override {
        return setUp(name, size, Mode::Writer);
    }
    bool Open(const std::string& name, unsigned int size) override {
        return setUp(name, size, Mode::Reader);
    }
    OpenError openError() override { return m_access.error(); }
    // Refused inside an observer's call: the read thread cannot join itself.
    bool Close() override;
    std::string getName() override { return m_access.name(); }
    bool WriteData(const void* data, const unsigned int& length) override;
    bool TryWriteData(const void* data, unsigned int length) override;
    // A message whose next chunk does not arrive within `timeout` is kept; a later call continues
    // it. Takes up to 20 ms longer while another process holds the mutex.
    std::string ReadData(unsigned int& length, unsigned int timeout) override;
    bool subscribeObserver(SharedMemoryObserverI* observer) override {
        return m_readThread.subscribe(observer);
    }
    void unsubscribeObserver(SharedMemoryObserverI* observer) override;
    void unsubscribeAllObservers() override { m_readThread.unsubscribeAll(); }
    // Gives up after 2000 ms without a chunk, and keeps an unfinished message as above.
    bool ReadData(void** data, unsigned int& length) override;

    // Bytes of the object of a segment with a data area of `capacity` bytes.
    static unsigned int CalculateSharedMemorySize(unsigned int capacity) {
        return SegmentMapping::sizeFor(capacity);
    }

protected:
    using Mode = SegmentAccess::Mode;

    // --- supplied by a backend
    // A monotonic clock in milliseconds, truncated to 32 bits: compare only differences.
    virtual unsigned int ElapsedMillisecond() = 0;
    // Atomic on words of the segment, also between processes.
    virtual long IncrementWithLocking(SharedWord* word) = 0;  // the new value
    virtual void DecrementWithLocking(SharedWord* word) = 0;
    virtual long ExcangeWithLocking(SharedWord* target, long value) = 0;  // the old value
    // Maps the segment and starts the end of `mode()`. False when already open or when the system
    // refuses.
    virtual bool CreateOrOpen(const std::string& name, unsigned int size, bool bTryToCreate)
        NORVO_REQUIRES(m_operationLock) = 0;
    virtual bool CloseSharedMemory() NORVO_REQUIRES(m_operationLock) = 0;

    // --- changed by a variant
    // Whether a message is waiting; `update` marks a broadcast's latest message as seen.
    virtual bool NewMessage(bool update) NORVO_REQUIRES(m_operationLock);
    virtual SlotEnd& end(Mode mode) NORVO_REQUIRES(m_operationLock);
    virtual bool writeMessage(const void* data, unsigned int length)
        NORVO_REQUIRES(m_operationLock) {
        return m_writer.write(data, length);
    }
    // A variant whose writers take turns by a lock of their own says no.
    virtual bool tryWriteMessage(const void* data, unsigned int length)
        NORVO_REQUIRES(m_operationLock) {
        return m_writer.tryWrite(data, length);
    }
    // Whether a message is what the slot holds, and taking it frees the slot.
    virtual bool isPlain() const { return true; }
    virtual bool waitForMessage(unsigned int timeout) NORVO_REQUIRES(m_operationLock);
    // Then takes the message, whose chunks must follow each other within `silence` ms.
    virtual std::string takeMessage(unsigned int silence) NORVO_REQUIRES(m_operationLock) {
        return m_reader.take(std::chrono::milliseconds(silence));
    }
    // Takes a waiting message, if any.
    virtual std::string takeMessageNow() NORVO_REQUIRES(m_operationLock);

    bool isOpen() const { return m_gate.isOpen(); }
    // Open, and its memory may be used (SegmentSlot::check).
    bool isSound() NORVO_REQUIRES(m_operationLock) {
        return isOpen() && m_slot.check(Clock::now()) != SegmentSlot::Soundness::Lost;
    }
    Mode mode() const { return m_access.mode(); }
    // Whether the segment is open and set up for `mode`; logs when not.
    bool mayOperate(Mode mode) { return m_access.mayOperate(mode); }
    bool HasObservers() const { return m_readThread.hasObservers(); }
    bool IsReadRunning() const { return m_readThread.isRunning(); }

    SlotGate m_gate;
    VDIFrameworkCommon::LocalMutex m_operationLock;
    SegmentSlot m_slot NORVO_GUARDED_BY(m_operationLock){m_gate};
    SlotReader m_reader NORVO_GUARDED_BY(m_operationLock){m_slot};
    SlotWriter m_writer NORVO_GUARDED_BY(m_operationLock){m_slot};

private:
    bool setUp(const std::string& name, unsigned int size, Mode mode);
    bool trySetUp(const std::string& name, unsigned int size, Mode mode);
    std::string readForObservers(unsigned int wait);
    std::string readAtOnce();
    std::optional<VDIFrameworkCommon::Awaited> beginWait();

    // Used without the operation lock, which a reader holds while it waits.
    SegmentAccess m_access{m_gate};
    ReadThread m_readThread;
};

}  // namespace shared_memory
