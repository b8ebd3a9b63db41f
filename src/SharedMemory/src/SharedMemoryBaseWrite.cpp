// The write path of SharedMemoryBase.
#include <algorithm>
#include <cstring>

#include "Log.h"
#include "SharedMemoryBase.h"

NORVO_LOG_SOURCE("src/SharedMemory/src/SharedMemoryBase")

using VDIFrameworkCommon::LocalLock;

bool SharedMemoryBase::WriteData(const void* data, const unsigned int& length) {
    // The read thread holds the operation lock for its life.
    if (m_mode == Mode::Reader && IsReadRunning()) {
        logIllegalOperation();
        return false;
    }
    LocalLock operation(m_operationLock);
    return writeMessage(data, length);
}

bool SharedMemoryBase::writeMessage(const void* data, unsigned int length) {
    if (!canWrite() || !mayOperate(Mode::Writer)) return false;
    if (!data) {
        NORVO_LOG(Warning, "Null data pointer!", m_name);
        return false;
    }
    const auto* bytes = static_cast<const char*>(data);
    const unsigned int count = length / m_capacity + (length % m_capacity != 0 ? 1 : 0);
    for (unsigned int i = 0; i < count; ++i) {
        const unsigned int sent = i * m_capacity;
        if (!writeChunk({count, i + 1, length, std::min(m_capacity, length - sent)},
                        bytes + sent)) {
            return false;
        }
    }
    return true;
}

bool SharedMemoryBase::writeChunk(const ChunkHeader& chunk, const char* bytes) {
    if (!WaitWritable(writeWait())) {
        NORVO_LOG(Error, "Memory is not writable: ", m_name);
        return false;
    }
    clearBehind(chunk.length);
    chunk.store(*m_header);
    std::memcpy(m_data, bytes, chunk.length);
    return SetNewMessageID();
}

// A reader finds zeros behind the chunk, as if the whole area had been cleared. What the chunk
// before used is cleared before its length is replaced, so a writer that dies on the way leaves a
// length that still covers the rest.
void SharedMemoryBase::clearBehind(unsigned int length) {
    const unsigned int before = m_header->chunkLength.load(std::memory_order_relaxed);
    const unsigned int dirty = m_restIsClear ? std::min(before, m_capacity) : m_capacity;
    if (dirty > length) std::memset(m_data + length, 0, dirty - length);
    m_restIsClear = true;
}

bool SharedMemoryBase::canWrite() {
    const bool allowed = m_controller->canWrite();
    if (allowed != m_lastCanWrite) {
        NORVO_LOG(Notice, "Canwrite flag turns to ", allowed ? "true" : "false", ": ", m_name);
        m_lastCanWrite = allowed;
    }
    return allowed;
}
