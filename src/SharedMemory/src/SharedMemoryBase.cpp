#include "SharedMemoryBase.h"

#include <algorithm>
#include <chrono>

#include "Log.h"

NORVO_LOG_SOURCE("src/SharedMemory/src/SharedMemoryBase")

using VDIFrameworkCommon::LocalLock;
using VDIFrameworkCommon::NamedCondition;

namespace {

using Clock = std::chrono::steady_clock;

// A wait is cut into pieces this long, so that a stop that came just before it is seen soon.
constexpr unsigned int kWaitSliceMs = 200;

// Wraps: the IDs in a segment may be anything.
long distance(long from, long to) {
    return static_cast<long>(static_cast<unsigned long>(to) - static_cast<unsigned long>(from));
}

unsigned int millisecondsUntil(Clock::time_point deadline) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    return static_cast<unsigned int>(std::max<std::chrono::milliseconds::rep>(0, left.count()));
}

}  // namespace

SharedMemoryBase::SharedMemoryBase() : m_controller(SharedMemoryRWController::getInstance()) {}

SharedMemoryBase::~SharedMemoryBase() { stopReadThread(); }

unsigned int SharedMemoryBase::CalculateSharedMemorySize(unsigned int capacity) {
    return capacity + static_cast<unsigned int>(sizeof(SharedMemoryHeader));
}

bool SharedMemoryBase::Create(const std::string& name, unsigned int size) {
    return setUp(name, size, Mode::Writer);
}

bool SharedMemoryBase::Open(const std::string& name, unsigned int size) {
    return setUp(name, size, Mode::Reader);
}

bool SharedMemoryBase::setUp(const std::string& name, unsigned int size, Mode mode) {
    if (m_open) {
        NORVO_LOG(Error, "Shared Memory already initialized. SM: ", name);
        return false;
    }
    LocalLock operation(m_operationLock);
    LocalLock wait(m_waitLock);
    {
        LocalLock naming(m_nameLock);
        m_name = name;
        m_openError = {shared_memory::OpenFailure::SystemError, 0, 0, -1};
    }
    if (!createSynchronization(mode)) return false;
    m_writeCondition.notify();
    const bool ready = CreateOrOpen(name, size, true);
    if (ready) start(mode);
    if (ready) enterRegistry(mode);
    m_mutex.unlock();
    if (!ready) return false;
    if (mode == Mode::Reader) m_writeCondition.notify();
    m_controller->start();
    return true;
}

void SharedMemoryBase::enterRegistry(Mode mode) {
    using shared_memory::SegmentRegistry;
    if (!m_registry.open(m_name)) return;
    m_registry.removeGone([](const auto&) {});
    m_registry.enter(mode == Mode::Writer ? SegmentRegistry::Role::Writer
                                          : SegmentRegistry::Role::Reader);
}

void SharedMemoryBase::start(Mode mode) {
    MapSMAreaPointers();
    m_mode = mode;
    m_restIsClear = false;
    m_assembler.drop();
    logLockTaken();
    if (mode == Mode::Writer) {
        startWriting();
    } else {
        startReading();
    }
}

void SharedMemoryBase::ResetSynchronizationID() {
    m_header->newMessageId = 0;
    m_header->readMessageId = 0;
}

void SharedMemoryBase::startWriting() { ResetSynchronizationID(); }

void SharedMemoryBase::startReading() { m_header->readMessageId = m_header->newMessageId.load(); }

// With the mutex locked at the end.
bool SharedMemoryBase::createSynchronization(Mode mode) {
    for (int attempt = 0; attempt < 3; ++attempt) {
        if (!createObjects(mode) || !lockNamedMutex()) return false;
        // Whoever removed the segment held the mutex, and it is gone, too.
        if (m_mutex.isCurrent()) return true;
        m_mutex.unlock();
    }
    return false;
}

bool SharedMemoryBase::createObjects(Mode mode) {
    const std::string object = kSegmentObjectPrefix + m_name;
    if (!m_mutex.create(object.c_str())) {
        NORVO_LOG(Error, "CreateMutex for shared memory start failed, stream: ", m_name);
        return false;
    }
    NORVO_LOG(Info, "CreateMutex for shared memory start ",
              mode == Mode::Writer ? "succeed" : "Suceded", ", stream: ", m_name);
    m_mutex.unlock();
    if (!m_readCondition.create((object + kReadConditionSuffix).c_str())) {
        NORVO_LOG(Error,
                  "Create condition for reading shared memory start failed, stream: ", m_name);
        return false;
    }
    NORVO_LOG(Info, "Create condition for reading shared memory start succeed, stream: ", m_name);
    if (!m_writeCondition.create((object + kWriteConditionSuffix).c_str())) {
        NORVO_LOG(Error,
                  "Create condition for writing to  shared memory start failed, stream: ", m_name);
        return false;
    }
    NORVO_LOG(Info, "Create condition for writing shared memory start succeed, stream: ", m_name);
    return true;
}

void SharedMemoryBase::mapped(void* address, unsigned int capacity) {
    m_address = address;
    m_capacity = capacity;
    m_open = true;
}

void SharedMemoryBase::MapSMAreaPointers() {
    m_header = static_cast<SharedMemoryHeader*>(m_address);
    m_data = static_cast<char*>(m_address) + sizeof(SharedMemoryHeader);
}

bool SharedMemoryBase::Close() {
    if (isOnReadThread()) {
        logIllegalOperation();
        return false;
    }
    stopReadThread();
    if (!m_open.exchange(false)) {
        logIllegalOperation();
        return false;
    }
    m_readCondition.notify();
    m_writeCondition.notify();
    LocalLock operation(m_operationLock);
    LocalLock wait(m_waitLock);
    dropPartialMessage();
    leave();
    m_registry.close();
    m_header = nullptr;
    m_data = nullptr;
    return CloseSharedMemory();
}

shared_memory::OpenError SharedMemoryBase::openError() {
    LocalLock naming(m_nameLock);
    return m_openError;
}

void SharedMemoryBase::setOpenError(const shared_memory::OpenError& error) {
    LocalLock naming(m_nameLock);
    m_openError = error;
}

std::string SharedMemoryBase::getName() {
    LocalLock naming(m_nameLock);
    return m_name;
}

bool SharedMemoryBase::mayOperate(Mode mode) {
    if (m_open && m_mode == mode) return true;
    logIllegalOperation();
    return false;
}

void SharedMemoryBase::logIllegalOperation() { NORVO_LOG(Warning, "Illegal operation!", m_name); }

bool SharedMemoryBase::lockNamedMutex() {
    if (m_mutex.lock()) return true;
    NORVO_LOG(Error, "Error: Locking named mutex timedout, stream: ", m_name);
    return false;
}

void SharedMemoryBase::logLockTaken() {
    NORVO_LOG(Trace,
              "Lock on named mutex has happened, someone has read the shared memory, so we can "
              "write, stream: ",
              m_name);
}

bool SharedMemoryBase::SetNewMessageID() {
    if (!m_header || !lockNamedMutex()) return false;
    m_header->newMessageId.fetch_add(1);
    m_mutex.unlock();
    m_readCondition.notify();
    return true;
}

// A writer that is set up resets the IDs without waiting for the reader, and may write while the
// reader still copies: what it wrote is left to be read.
bool SharedMemoryBase::SetReadMessageID() {
    if (!m_header || !lockNamedMutex()) return false;
    logLockTaken();
    const bool unchanged = m_header->newMessageId == m_unreadId;
    if (unchanged) m_header->readMessageId = m_unreadId;
    m_mutex.unlock();
    m_writeCondition.notify();
    return unchanged;
}

bool SharedMemoryBase::NewMessage(bool /*update*/) {
    if (!m_header || !m_open || !lockNamedMutex()) return false;
    logLockTaken();
    const bool unread = isUnread();
    m_mutex.unlock();
    return unread;
}

bool SharedMemoryBase::isUnread() {
    const long newId = m_header->newMessageId;
    const long ahead = distance(m_header->readMessageId, newId);
    if (ahead < 0) {
        // Neither readable nor writable: only a misbehaving process leaves this behind.
        NORVO_LOG(Warning, "Message IDs went backwards, stream: ", m_name);
        m_header->readMessageId = newId;
        m_writeCondition.notify();
    }
    if (ahead > 0) m_unreadId = newId;
    return ahead > 0;
}

bool SharedMemoryBase::WaitWritable(unsigned int timeout) {
    LocalLock wait(m_waitLock);
    return waitFor(m_writeCondition, timeout,
                   [this] { return m_header->newMessageId == m_header->readMessageId; });
}

bool SharedMemoryBase::WaitForData(unsigned int timeout) {
    LocalLock wait(m_waitLock);
    return waitForChunk(timeout);
}

bool SharedMemoryBase::waitForChunk(unsigned int timeout) {
    return waitFor(m_readCondition, timeout, [this] { return isUnread(); });
}

template <class Test>
bool SharedMemoryBase::waitFor(NamedCondition& condition, unsigned int timeout, Test test) {
    if (!m_header || !m_open || !lockNamedMutex()) return false;
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeout);
    unsigned int left = timeout;
    bool met = false;
    for (bool over = false; !met && !over;) {
        const bool notified = condition.timed_wait(m_mutex, std::min(left, kWaitSliceMs));
        if (!m_open || isReadingStopped()) break;
        met = notified && test();
        if (met) break;
        left = millisecondsUntil(deadline);
        over = left == 0;
        if (over) met = test();
    }
    m_mutex.unlock();
    return met;
}
