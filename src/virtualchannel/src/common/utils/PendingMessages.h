#pragma once

#include <cstdint>
#include <map>
#include <memory>

#include "PendingMessage.h"

namespace NorvoVirtualChannel {

// The incomplete messages of one channel, by ID. Not synchronised.
//
// The usual case, a message whose packets are not interleaved with another's, costs no search and
// no allocation, however many other messages are open: it stays outside the table and reuses the
// memory of the one before it.
class PendingMessages {
public:
    // Null when there is no such message.
    PendingMessage* find(std::int32_t id) {
        if (m_fresh && m_fresh->id() == id) return m_fresh.get();
        return m_table.empty() ? nullptr : findInTable(id);
    }
    // The ID must be new. A message does not move until it is finished.
    PendingMessage& begin(std::int32_t id, std::uint32_t total);
    // Removes an existing message.
    void finish(PendingMessage& message);

private:
    PendingMessage* findInTable(std::int32_t id);

    std::map<std::int32_t, std::unique_ptr<PendingMessage>> m_table;
    std::unique_ptr<PendingMessage> m_fresh;  // the latest, while not in the table
    PendingMessage* m_found = nullptr;        // the one in the table found last

    // A finished message, whose memory the next one reuses, and the message that reuses it. There
    // is no second spare while that one is open, and only that one may begin in a large block.
    // Otherwise large messages, each followed by the beginning of another, could pile up nearly
    // empty blocks.
    std::unique_ptr<PendingMessage> m_spare;
    PendingMessage* m_spareHolder = nullptr;
};

}  // namespace NorvoVirtualChannel
