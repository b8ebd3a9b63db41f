#include "SharedMemoryBase.h"

#include <algorithm>
#include <new>
#include <utility>

#include "Log.h"
#include "SharedMemoryUtilities.h"

namespace shared_memory {

using std::chrono::milliseconds;
using VDIFrameworkCommon::LocalLock;

namespace {

// Between two looks at whether this process may read again, and between two chunks of a message.
constexpr unsigned int kReadPauseMs = 200;
// A living writer gives up on a message when one of its chunks has waited this long.
constexpr milliseconds kLongestSilence{2000};

}  // namespace

SharedMemoryBase::SharedMemoryBase()
    : m_readThread(*this, m_gate,
                   {[this] { return isOpen() && mayOperate(Mode::Reader); },
                    [this](unsigned int wait) { return readForObservers(wait); },
                    [this] { return beginWait(); }, [this] { return readAtOnce(); }}) {}

bool SharedMemoryBase::setUp(const std::string& name, unsigned int size, Mode mode) {
    try {
        return trySetUp(name, size, mode);
    } catch (const std::bad_alloc&) {
        return m_access.refuse();
    }
}

bool SharedMemoryBase::trySetUp(const std::string& name, unsigned int size, Mode mode) {
    if (isOpen()) {
        NORVO_LOG(Error, "Shared Memory already initialized. SM: ", name);
        return false;
    }
    if (!m_access.startController()) return false;
    LocalLock operation(m_operationLock);
    if (!m_slot.isMapped()) m_access.setMode(mode);
    std::string copy = name;
    const bool isReady = CreateOrOpen(name, size, true);
    return m_access.setUp(m_slot, std::move(copy), isReady);
}

bool SharedMemoryBase::Close() {
    const bool isInside = m_readThread.isCurrent();
    if (!isInside) m_readThread.stop();
    if (isInside || !m_gate.close()) {
        m_access.logIllegalOperation();
        return false;
    }
    LocalLock operation(m_operationLock);
    return CloseSharedMemory();
}

bool SharedMemoryBase::WriteData(const void* data, const unsigned int& length) {
    // A reader holds the operation lock while it waits.
    if (mode() == Mode::Reader) {
        m_access.logIllegalOperation();
        return false;
    }
    LocalLock operation(m_operationLock);
    return m_access.mayWrite(data) && writeMessage(data, length);
}

bool SharedMemoryBase::TryWriteData(const void* data, unsigned int length) {
    if (mode() != Mode::Writer || !m_operationLock.try_lock()) return false;
    const LocalLock operation(m_operationLock, std::adopt_lock);
    return m_access.mayWrite(data) && tryWriteMessage(data, length);
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

bool SharedMemoryBase::ReadData(void** data, unsigned int& length) {
    if (!mayOperate(Mode::Reader)) return false;
    length = 0;
    *data = nullptr;
    std::string message;
    {
        LocalLock operation(m_operationLock);
        if (m_gate.isPassable()) message = takeMessageNow();
    }
    return utilities::copyToArray(message, data, length);
}

std::string SharedMemoryBase::takeMessageNow() { return m_reader.takeNow(kLongestSilence); }

bool SharedMemoryBase::NewMessage(bool /*update*/) {
    if (!m_slot.isMapped()) return false;
    const SegmentSlot::Section section(m_slot);
    return section && m_slot.isUnread();
}

SlotEnd& SharedMemoryBase::end(Mode mode) {
    if (mode == Mode::Writer) return m_writer;
    return m_reader;
}

void SharedMemoryBase::unsubscribeObserver(SharedMemoryObserverI* observer) {
    NORVO_LOG(Info, "Unsubscribe observer start, stream: ", getName());
    m_readThread.unsubscribe(observer);
    NORVO_LOG(Info, "Unsubscribe observer stop, stream: ", getName());
}

std::string SharedMemoryBase::readForObservers(unsigned int wait) {
    if (!m_access.mayRead()) {
        m_readThread.pause(kReadPauseMs);
        return {};
    }
    LocalLock operation(m_operationLock);
    const bool hasCome = m_gate.isPassable() && waitForMessage(wait) && m_access.mayRead();
    return hasCome ? takeMessage(kReadPauseMs) : std::string();
}

// ---- With a stand-in, which must not wait for a lock

std::optional<VDIFrameworkCommon::Awaited> SharedMemoryBase::beginWait() {
    if (!m_gate.isPassable() || !m_operationLock.try_lock()) return std::nullopt;
    const LocalLock operation(m_operationLock, std::adopt_lock);
    return m_slot.isMapped() && isPlain() ? m_slot.beginWait() : std::nullopt;
}

std::string SharedMemoryBase::readAtOnce() {
    if (!m_access.mayRead() || !m_operationLock.try_lock()) return {};
    const LocalLock operation(m_operationLock, std::adopt_lock);
    return m_gate.isPassable() ? m_reader.takeAtOnce(ReadThread::kLargestAtOnce) : std::string();
}

}  // namespace shared_memory
