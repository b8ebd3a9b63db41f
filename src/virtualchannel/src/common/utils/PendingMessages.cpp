#include "PendingMessages.h"

#include <utility>

namespace NorvoVirtualChannel {

PendingMessage* PendingMessages::findInTable(std::int32_t id) {
    if (m_found && m_found->id() == id) return m_found;
    const auto entry = m_table.find(id);
    if (entry == m_table.end()) return nullptr;
    m_found = entry->second.get();
    return m_found;
}

PendingMessage& PendingMessages::begin(std::int32_t id, std::uint32_t total) {
    if (m_fresh) {
        const std::int32_t earlier = m_fresh->id();
        m_table.emplace(earlier, std::move(m_fresh));
    }
    if (m_spare) {
        m_fresh = std::move(m_spare);
        m_spareHolder = m_fresh.get();
    } else {
        m_fresh = std::make_unique<PendingMessage>();
    }
    m_fresh->start(id, total, m_fresh.get() == m_spareHolder);
    return *m_fresh;
}

void PendingMessages::finish(PendingMessage& message) {
    std::unique_ptr<PendingMessage> finished;
    if (&message == m_fresh.get()) {
        finished = std::move(m_fresh);
    } else {
        const auto entry = m_table.find(message.id());
        finished = std::move(entry->second);
        m_table.erase(entry);
    }
    if (m_found == &message) m_found = nullptr;
    if (m_spareHolder && m_spareHolder != &message) return;
    m_spareHolder = nullptr;
    finished->freeLargeMemory();
    m_spare = std::move(finished);
}

}  // namespace NorvoVirtualChannel
