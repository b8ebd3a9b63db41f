#pragma once

#include <cstdint>
#include <map>
#include <memory>

#include "PendingMessage.h"

namespace NorvoVirtualChannel {

// The incomplete messages of one channel, by ID. Not synchronised.
//
// The usual case, that a message's packets come without those of another one between them, costs no
// search and no allocation, however many other messages are open: such a message stays beside the
// table, and takes over the memory of the one before it.
class PendingMessages {
public:
    // Null when there is none of that ID.
    PendingMessage* find(std::int32_t id) {
        if (m_fresh && m_fresh->id() == id) return m_fresh.get();
        return m_table.empty() ? nullptr : findInTable(id);
    }
    // There must be none of that ID. Messages stay where they are until they are finished.
    PendingMessage& begin(std::int32_t id, std::uint32_t total);
    // Forgets one that is there.
    void finish(PendingMessage& message);

private:
    PendingMessage* findInTable(std::int32_t id);

    std::map<std::int32_t, std::unique_ptr<PendingMessage>> m_table;
    std::unique_ptr<PendingMessage> m_fresh;  // the one begun last, while not in the table
    PendingMessage* m_found = nullptr;        // the one in the table that was looked for last

    // The memory of a message that is done with, for the next one to begin, and which one that is.
    // There is no second spare while that one is open: otherwise large messages, each with the
    // beginning of another one behind it, could pile up blocks that hold next to nothing.
    std::unique_ptr<PendingMessage> m_spare;
    PendingMessage* m_spareHolder = nullptr;
};

}  // namespace NorvoVirtualChannel
