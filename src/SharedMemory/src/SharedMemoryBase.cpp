#include "SharedMemoryBase.h"

#include <cstring>
#include <new>

#include "Log.h"

NORVO_LOG_SOURCE("src/SharedMemory/src/SharedMemoryBase")

namespace shared_memory {

using std::chrono::milliseconds;
using VDIFrameworkCommon::LocalLock;

namespace {

constexpr unsigned int kReadWaitMs = 200;
// A living writer gives a message up when a chunk of it has waited this long.
constexpr milliseconds kLongestSilence{2000};

}  // namespace

SharedMemoryBase::SharedMemoryBase()
    : m_controller(SharedMemoryRWController::getInstance()),
      m_readThread(*this, m_gate,
                   {[this] { return isOpen() && mayOperate(Mode::Reader); },
                    [this] { return readForObservers(); }}) {}

unsigned int SharedMemoryBase::CalculateSharedMemorySize(unsigned int capacity) {
    return SegmentMapping::sizeFor(capacity);
}

bool SharedMemoryBase::Create(const std::string& name, unsigned int size) {
    return setUp(name, size, Mode::Writer);
}

bool SharedMemoryBase::Open(const std::string& name, unsigned int size) {
    return setUp(name, size, Mode::Reader);
}

bool SharedMemoryBase::setUp(const std::string& name, unsigned int size, Mode mode) {
    if (isOpen()) {
        NORVO_LOG(Error, "Shared Memory already initialized. SM: ", name);
        return false;
    }
    LocalLock operation(m_operationLock);
    if (!m_slot.isMapped()) m_mode = mode;
    const bool ready = CreateOrOpen(name, size, true);
    LocalLock naming(m_nameLock);
    m_openError = m_slot.error();
    m_name = m_slot.name();
    if (ready) m_controller->start();
    return ready;
}

OpenError SharedMemoryBase::openError() {
    LocalLock naming(m_nameLock);
    return m_openError;
}

std::string SharedMemoryBase::getName() {
    LocalLock naming(m_nameLock);
    return m_name;
}

bool SharedMemoryBase::Close() {
    const bool isInside = m_readThread.isCurrent();
    if (!isInside) m_readThread.stop();
    if (isInside || !m_gate.close()) {
        logIllegalOperation();
        return false;
    }
    LocalLock operation(m_operationLock);
    return CloseSharedMemory();
}

bool SharedMemoryBase::WriteData(const void* data, const unsigned int& length) {
    // A reader holds the operation lock while it waits.
    if (mode() == Mode::Reader) {
        logIllegalOperation();
        return false;
    }
    LocalLock operation(m_operationLock);
    return mayWrite(data) && writeMessage(data, length);
}

bool SharedMemoryBase::mayWrite(const void* data) {
    if (!follow(m_controller->canWrite(), m_lastCanWrite, "Canwrite") ||
        !mayOperate(Mode::Writer)) {
        return false;
    }
    if (!data) NORVO_LOG(Warning, "Null data pointer!", m_slot.name());
    return data != nullptr;
}

bool SharedMemoryBase::writeMessage(const void* data, unsigned int length) {
    return m_writer.write(data, length);
}

std::string SharedMemoryBase::ReadData(unsigned int& length, unsigned int timeout) {
    std::string message;
    length = 0;
    if (!isOpen() || !mayOperate(Mode::Reader)) return message;
    LocalLock operation(m_operationLock);
    if (m_gate.isPassable() && waitForMessage(timeout)) message = takeMessage(timeout);
    length = static_cast<unsigned int>(message.size());
    return message;
}

bool SharedMemoryBase::waitForMessage(unsigned int timeout) {
    return m_reader.wait(Clock::now() + milliseconds(timeout));
}

std::string SharedMemoryBase::takeMessage(unsigned int silence) {
    return m_reader.take(milliseconds(silence));
}

bool SharedMemoryBase::ReadData(void** data, unsigned int& length) {
    if (!mayOperate(Mode::Reader)) return false;
    length = 0;
    *data = nullptr;
    std::string message;
    {
        LocalLock operation(m_operationLock);
        if (m_gate.isPassable()) message = takeMessageNow();
    }
    if (message.empty()) return false;
    auto* bytes = new (std::nothrow) char[message.size()];
    if (!bytes) return false;
    std::memcpy(bytes, message.data(), message.size());
    *data = bytes;
    length = static_cast<unsigned int>(message.size());
    return true;
}

std::string SharedMemoryBase::takeMessageNow() { return m_reader.takeNow(kLongestSilence); }

bool SharedMemoryBase::NewMessage(bool /*update*/) {
    const SegmentSlot::Section section(m_slot);
    return section && m_slot.isMapped() && m_slot.isUnread();
}

SlotEnd& SharedMemoryBase::end(Mode mode) {
    if (mode == Mode::Writer) return m_writer;
    return m_reader;
}

void SharedMemoryBase::subscribeObserver(SharedMemoryObserverI* observer) {
    m_readThread.subscribe(observer);
}

void SharedMemoryBase::unsubscribeObserver(SharedMemoryObserverI* observer) {
    NORVO_LOG(Info, "Unsubscribe observer start, stream: ", getName());
    m_readThread.unsubscribe(observer);
    NORVO_LOG(Info, "Unsubscribe observer stop, stream: ", getName());
}

void SharedMemoryBase::unsubscribeAllObservers() { m_readThread.unsubscribeAll(); }

std::string SharedMemoryBase::readForObservers() {
    if (!canRead()) {
        m_readThread.pause(kReadWaitMs);
        return {};
    }
    LocalLock operation(m_operationLock);
    if (!m_gate.isPassable() || !waitForMessage(kReadWaitMs) || !canRead()) return {};
    return takeMessage(kReadWaitMs);
}

bool SharedMemoryBase::canRead() {
    return follow(m_controller->canRead(), m_lastCanRead, "Canread");
}

bool SharedMemoryBase::follow(bool allowed, bool& last, const char* flag) {
    if (allowed != last) {
        NORVO_LOG(Notice, flag, " flag turns to ", allowed ? "true" : "false", ": ", getName());
    }
    last = allowed;
    return allowed;
}

bool SharedMemoryBase::mayOperate(Mode mode) {
    const bool may = isOpen() && m_mode == mode;
    if (!may) logIllegalOperation();
    return may;
}

void SharedMemoryBase::logIllegalOperation() {
    NORVO_LOG(Warning, "Illegal operation!", getName());
}

}  // namespace shared_memory
