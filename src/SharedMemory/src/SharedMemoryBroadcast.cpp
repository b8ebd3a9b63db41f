#include "SharedMemoryBroadcast.h"

#include <cstring>
#include <new>

#include "Log.h"
#include "SharedMemoryUtilities.h"

NORVO_LOG_SOURCE("src/SharedMemory/src/SharedMemoryBroadcast")

using VDIFrameworkCommon::LocalLock;

namespace {

constexpr unsigned int kPollMs = 20;
constexpr unsigned int kWriteWaitMs = 3000;
constexpr unsigned int kReaderIsGoneAfterMs = 2000;
constexpr unsigned int kReaderInsideIsGoneAfterMs = 500;
// Readers that knew an earlier writer's IDs need one poll to put them back in place.
constexpr unsigned int kReadersSettleMs = 5 * kPollMs;
constexpr int kCopies = 3;

// Wraps: the IDs in a segment may be anything.
long idBefore(long id) { return static_cast<long>(static_cast<unsigned long>(id) - 1); }

}  // namespace

SharedMemoryBroadcast::~SharedMemoryBroadcast() {
    if (isOpen()) SharedMemoryBroadcast::Close();
}

void SharedMemoryBroadcast::startWriting() {
    m_settleMs = header()->newMessageId == 0 ? 0 : kReadersSettleMs;
    SharedMemoryMacosx::startWriting();
    ExcangeWithLocking(&header()->writerLockCount, 0);
    m_createdAt = ElapsedMillisecond();
    m_lastWriteTime = m_createdAt - kReaderIsGoneAfterMs - 1;
    m_readersAtLastWrite = 0;
    m_isHeldUp = false;
}

void SharedMemoryBroadcast::startReading() {
    m_lastSeenId = header()->newMessageId;
    countAsOneThatCame();
}

void SharedMemoryBroadcast::countAsOneThatCame() {
    header()->chunkIndex.fetch_add(1);
    IncrementWithLocking(&header()->lockWord2);
    m_countedAfterId = m_lastSeenId;
    m_isCountLost = false;
}

void SharedMemoryBroadcast::leave() {
    if (mode() != Mode::Reader || !lockNamedMutex()) return;
    const long current = header()->newMessageId;
    const bool isReady = m_countedAfterId == current;
    const bool isAwaited = m_countedAfterId == idBefore(current);
    if (isReady) DecrementWithLocking(&header()->lockWord2);
    if (isReady || isAwaited) header()->chunkIndex.fetch_sub(1);
    m_mutex.unlock();
}

bool SharedMemoryBroadcast::NewMessage(bool update) {
    if (!header() || !isOpen()) return false;
    long current = header()->newMessageId;
    if (current == m_lastSeenId) return false;
    if (current > m_lastSeenId) {
        if (update) m_lastSeenId = current;
        return true;
    }
    // The writer was set up anew. While the ID is 0 it has not written, and the one before the last
    // was put there by a reader that has yet to take the last: the slot holds an old message.
    const bool isOld = current == 0 || (current > 1 && current == m_lastSeenId - 1);
    header()->newMessageId.compare_exchange_strong(current, m_lastSeenId);
    return !isOld;
}

bool SharedMemoryBroadcast::LockRead() {
    if (!header() || !isOpen()) return false;
    IncrementWithLocking(&header()->readMessageId);
    return true;
}

void SharedMemoryBroadcast::UnlockRead() {
    if (!header()) return;
    // A writer that gave up waiting may have set the count to 0 meanwhile.
    SharedWord& inside = header()->readMessageId;
    long count = inside;
    while (count > 0 && !inside.compare_exchange_weak(count, count - 1)) {
    }
}

void SharedMemoryBroadcast::UnlockWrite() {
    if (header()) DecrementWithLocking(&header()->writerLockCount);
}

bool SharedMemoryBroadcast::LockWrite() {
    if (!header() || !isOpen()) return false;
    IncrementWithLocking(&header()->writerLockCount);
    if (isGranted(ElapsedMillisecond())) return true;
    DecrementWithLocking(&header()->writerLockCount);
    return false;
}

bool SharedMemoryBroadcast::isGranted(unsigned int now) {
    const long inside = header()->readMessageId;
    if (inside >= 2) {
        if (now - m_lastWriteTime <= kReaderIsGoneAfterMs) return false;
        ExcangeWithLocking(&header()->readMessageId, 0);
        return true;
    }
    if (header()->lockWord2 == 0 && m_readersAtLastWrite == 0) return false;
    return isTakenByAll() || isGrantedLate(now, inside == 1);
}

// A reader that opens or closes changes the count and the index one after the other: that they fit
// is believed only under the mutex that it holds meanwhile.
bool SharedMemoryBroadcast::isTakenByAll() {
    const auto fits = [this] {
        const auto ready = static_cast<unsigned int>(header()->lockWord2.load());
        const unsigned int came = header()->chunkIndex.load() - 1;
        return ready - came == m_readersAtLastWrite;
    };
    if (!fits() || !lockNamedMutex()) return false;
    const bool isTaken = fits();
    m_mutex.unlock();
    return isTaken;
}

bool SharedMemoryBroadcast::isGrantedLate(unsigned int now, bool readerInside) {
    if (now - m_lastWriteTime <= kReaderIsGoneAfterMs) return false;
    if (readerInside && !m_isHeldUp) m_heldUpSince = now;
    m_isHeldUp = readerInside;
    if (!readerInside) return true;
    if (now - m_heldUpSince < kReaderInsideIsGoneAfterMs) return false;
    ExcangeWithLocking(&header()->readMessageId, 0);
    m_isHeldUp = false;
    return true;
}

bool SharedMemoryBroadcast::WaitLockWrite(unsigned int timeout) {
    const unsigned int start = ElapsedMillisecond();
    for (;;) {
        const unsigned int now = ElapsedMillisecond();
        if (!HasObservers()) {
            if (!isOpen()) return false;
            if (now - m_createdAt >= m_settleMs && LockWrite()) return true;
            if (now - start >= timeout) return false;
        } else if (!IsReadRunning()) {
            return false;
        }
        shared_memory::utilities::sleep(1);
    }
}

bool SharedMemoryBroadcast::writeMessage(const void* data, unsigned int length) {
    if (!canWrite() || !mayOperate(Mode::Writer)) return false;
    if (!data) {
        NORVO_LOG(Warning, "Null data pointer!", m_name);
        return false;
    }
    if (length > capacity()) {
        NORVO_LOG(Warning, "Message too long!", m_name);
        return false;
    }
    if (!WaitLockWrite(kWriteWaitMs)) {
        NORVO_LOG(Error, "Failed to lock for writing!", m_name);
        return false;
    }
    return publish(data, length);
}

// Count, index and ID change in one section, so that a reader that opens is either counted and sees
// the message, or neither. The ID goes first: a writer that dies between the two then leaves a
// message that the readers answer, and not a count of 0 that keeps the next writer out.
bool SharedMemoryBroadcast::publish(const void* data, unsigned int length) {
    std::memcpy(dataArea(), data, length);
    const bool locked = lockNamedMutex();
    if (locked) {
        ChunkHeader{1, 1, length, length}.store(*header());
        IncrementWithLocking(&header()->newMessageId);
        m_readersAtLastWrite =
            static_cast<unsigned int>(ExcangeWithLocking(&header()->lockWord2, 0));
        m_lastWriteTime = ElapsedMillisecond();
        m_isHeldUp = false;
    }
    UnlockWrite();
    if (!locked) return false;
    m_mutex.unlock();
    m_readCondition.notify();
    return true;
}

std::string SharedMemoryBroadcast::ReadData(unsigned int& length, unsigned int /*timeout*/) {
    length = 0;
    std::string message;
    if (!mayOperate(Mode::Reader)) return message;
    LocalLock wait(m_waitLock);
    if (waitForChunk(kPollMs)) {
        takeSeenMessage(message);
    } else {
        stayCounted();
    }
    length = static_cast<unsigned int>(message.size());
    return message;
}

bool SharedMemoryBroadcast::receive(std::string& message, unsigned int /*silence*/) {
    return NewMessage(true) && takeSeenMessage(message);
}

bool SharedMemoryBroadcast::takeSeenMessage(std::string& message) {
    if (!LockRead()) {
        NORVO_LOG(Warning, "Failed to lock for reading!", m_name);
        return false;
    }
    m_isCountLost = false;
    const bool isValid = copyMessage(message);
    countAsReady();
    UnlockRead();
    if (!isValid) NORVO_LOG(Warning, "Invalid message length!", m_name);
    return isValid;
}

// A writer that has given this reader up may be writing the next message already: what it touched
// is copied again. Its lock is looked at by a write of its own, which the copy cannot fall behind.
bool SharedMemoryBroadcast::copyMessage(std::string& message) {
    for (int copy = 0; copy < kCopies; ++copy) {
        const long id = header()->newMessageId;
        const ChunkHeader chunk = ChunkHeader::load(*header());
        if (chunk.total > capacity() || chunk.length != chunk.total) return false;
        try {
            message.assign(dataArea(), chunk.length);
        } catch (const std::bad_alloc&) {
            return false;
        }
        if (header()->writerLockCount.fetch_add(0) < 1 && header()->newMessageId == id) {
            m_lastSeenId = id;
            break;
        }
        shared_memory::utilities::sleep(1);
    }
    return true;
}

// A reader that the writer did not wait for with this message counts like one that opened.
void SharedMemoryBroadcast::countAsReady() {
    if (!lockNamedMutex()) return;
    if (header()->newMessageId == m_lastSeenId) {
        if (m_countedAfterId == idBefore(m_lastSeenId)) {
            IncrementWithLocking(&header()->lockWord2);
            m_countedAfterId = m_lastSeenId;
        } else {
            countAsOneThatCame();
        }
    }
    m_mutex.unlock();
}

// A count of 0 without a message to take would keep every writer out for good. Looked at twice,
// because an end that is not ours may zero it a moment before it raises the ID.
void SharedMemoryBroadcast::stayCounted() {
    if (!header()) return;
    if (header()->lockWord2 != 0) {
        m_isCountLost = false;
        return;
    }
    if (!lockNamedMutex()) return;
    if (header()->lockWord2 == 0 && header()->newMessageId == m_lastSeenId) {
        if (m_isCountLost) {
            countAsOneThatCame();
        } else {
            m_isCountLost = true;
        }
    }
    m_mutex.unlock();
}
