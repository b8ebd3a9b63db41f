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

// What has happened and has not been looked at yet. At most 1024 notifications, then the oldest is
// dropped. Of the connection's changes, which come first, the last one stays in any case: when more
// than 64 wait, the two oldest are left out, which lead back to the state before them. Thread-safe.
class NewsQueue {
public:
    void add(Notification notification);
    void add(bool connected);
    // Waits for the next piece. False when `deadline` passed first, or when closed and empty.
    bool take(News& news, Clock::time_point deadline);
    // Nothing is added any more, and no wait goes on.
    void close();

private:
    static constexpr std::size_t kMostNotifications = 1024;
    static constexpr std::size_t kMostChanges = 64;

    bool isEmpty() const NORVO_REQUIRES(m_mutex) {
        return m_notifications.empty() && m_changes.empty();
    }

    VDIFrameworkCommon::LocalMutex m_mutex;
    VDIFrameworkCommon::LocalCondition m_changed;
    std::deque<Notification> m_notifications NORVO_GUARDED_BY(m_mutex);
    std::deque<bool> m_changes NORVO_GUARDED_BY(m_mutex);
    bool m_closed NORVO_GUARDED_BY(m_mutex) = false;
};

}  // namespace NorvoStreamClient
