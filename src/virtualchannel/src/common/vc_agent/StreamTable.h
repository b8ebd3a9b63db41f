#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "AgentStream.h"
#include "LockOrder.h"

namespace VirtualChannelAgent {

// Every stream of an agent by name, the outgoing INFO stream included. Loops use a snapshot, in
// name order, as what they call may need the table. Thread-safe.
class StreamTable {
public:
    // Empty when there is none.
    StreamPtr find(std::string_view name) const NORVO_TAKES_STREAMS;
    // False when the name is taken or the table has been closed.
    bool insert(const StreamPtr& stream) NORVO_TAKES_STREAMS;
    std::vector<StreamPtr> snapshot() const NORVO_TAKES_STREAMS;

    // What streams are moved to when they leave the table; that needs no memory.
    using Streams = std::map<std::string, StreamPtr, std::less<>>;
    void move(std::string_view name, Streams& to) NORVO_TAKES_STREAMS;
    // All of them, and no more can be inserted.
    Streams close() NORVO_TAKES_STREAMS;

private:
    mutable VDIFrameworkCommon::LocalMutex m_mutex;
    Streams m_streams NORVO_GUARDED_BY(m_mutex);
    bool m_closed NORVO_GUARDED_BY(m_mutex) = false;
};

}  // namespace VirtualChannelAgent
