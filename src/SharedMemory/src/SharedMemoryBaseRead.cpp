// The read path of SharedMemoryBase.
#include <cstring>
#include <new>

#include "Log.h"
#include "SharedMemoryBase.h"

NORVO_LOG_SOURCE("src/SharedMemory/src/SharedMemoryBase")

using VDIFrameworkCommon::LocalLock;

namespace {

// A living writer gives a message up when a chunk of it has waited this long.
constexpr unsigned int kLongestSilenceMs = 2000;

}  // namespace

std::string SharedMemoryBase::ReadData(unsigned int& length, unsigned int timeout) {
    length = 0;
    std::string message;
    LocalLock wait(m_waitLock);
    if (!waitForChunk(timeout) || !mayOperate(Mode::Reader)) return message;
    takeMessage(message, timeout);
    length = static_cast<unsigned int>(message.size());
    return message;
}

bool SharedMemoryBase::ReadData(void** data, unsigned int& length) {
    if (!mayOperate(Mode::Reader)) return false;
    length = 0;
    *data = nullptr;
    std::string message;
    {
        LocalLock wait(m_waitLock);
        if (!receive(message, kLongestSilenceMs)) return false;
    }
    auto* bytes = new (std::nothrow) char[message.size()];
    if (!bytes) return false;
    std::memcpy(bytes, message.data(), message.size());
    *data = bytes;
    length = static_cast<unsigned int>(message.size());
    return true;
}

bool SharedMemoryBase::receive(std::string& message, unsigned int silence) {
    if (isReadingStopped()) return false;
    const bool waiting = NewMessage(false) || (m_assembler.inProgress() && waitForChunk(silence));
    return waiting && takeMessage(message, silence);
}

bool SharedMemoryBase::takeMessage(std::string& message, unsigned int silence) {
    Taken taken = takeChunk(message);
    while (taken == Taken::Part && waitForChunk(silence)) taken = takeChunk(message);
    if (!m_open) dropPartialMessage();
    return taken == Taken::Message;
}

SharedMemoryBase::Taken SharedMemoryBase::takeChunk(std::string& message) {
    const ChunkHeader chunk = ChunkHeader::load(*m_header);
    if (chunk.index == 1 && m_assembler.inProgress()) {
        NORVO_LOG(Warning, "Previous message is broken!", m_name);
    }
    const auto outcome = m_assembler.add(chunk, m_data, m_capacity);
    if (outcome == MessageAssembler::Outcome::BadLength) {
        NORVO_LOG(Warning, "Invalid message length. Dismiss message.", m_name);
        // Left in the slot, a later chunk is dropped as a stray; a first one never would be.
        if (chunk.index == 1) SetReadMessageID();
        return Taken::Nothing;
    }
    m_chunksTaken.fetch_add(1, std::memory_order_relaxed);
    if (!SetReadMessageID() || outcome == MessageAssembler::Outcome::Stray) {
        NORVO_LOG(Warning, "Receiving broken message", m_name);
        m_assembler.drop();
        return Taken::Nothing;
    }
    if (outcome == MessageAssembler::Outcome::Incomplete) return Taken::Part;
    message = m_assembler.take();
    return Taken::Message;
}

void SharedMemoryBase::dropPartialMessage() {
    if (!m_assembler.inProgress()) return;
    NORVO_LOG(Warning, "The message is not received in full.", m_name);
    m_assembler.drop();
}
