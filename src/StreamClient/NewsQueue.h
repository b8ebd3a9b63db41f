#pragma once

#include <cstddef>
#include <deque>
#include <variant>

#include "AgentView.h"
#include "LocalMutex.h"
#include "NorvoStreamClient.h"

namespace NorvoStreamClient {

// A notification, or the new state of the connection.
using News = std::variant<Notification, bool>;

// What has happened and has not been looked at yet: at most 1024 pieces, then the oldest is
// dropped. Thread-safe.
class NewsQueue {
public:
    void add(News news);
    // Waits for the next piece. False when `deadline` passed first, or when closed and empty.
    bool take(News& news, Clock::time_point deadline);
    // Nothing is added any more, and no wait goes on.
    void close();

private:
    static constexpr std::size_t kMost = 1024;

    VDIFrameworkCommon::LocalMutex m_mutex;
    VDIFrameworkCommon::LocalCondition m_changed;
    std::deque<News> m_waiting NORVO_GUARDED_BY(m_mutex);
    bool m_closed NORVO_GUARDED_BY(m_mutex) = false;
};

}  // namespace NorvoStreamClient
