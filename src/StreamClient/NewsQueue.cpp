#include "NewsQueue.h"

namespace NorvoStreamClient {

using VDIFrameworkCommon::LocalLock;

void NewsQueue::add(Notification notification) {
    LocalLock lock(m_mutex);
    if (m_closed) return;
    if (m_notifications.size() >= kMostNotifications) m_notifications.pop_front();
    m_notifications.push_back(std::move(notification));
    m_changed.notify_one();
}

void NewsQueue::add(bool connected) {
    LocalLock lock(m_mutex);
    if (m_closed) return;
    if (m_changes.size() >= kMostChanges) m_changes.erase(m_changes.begin(), m_changes.begin() + 2);
    m_changes.push_back(connected);
    m_changed.notify_one();
}

bool NewsQueue::take(News& news, Clock::time_point deadline) {
    LocalLock lock(m_mutex);
    while (isEmpty() && !m_closed && Clock::now() < deadline)
        m_changed.wait_until(m_mutex, deadline);
    if (isEmpty()) return false;
    if (!m_changes.empty()) {
        news = m_changes.front();
        m_changes.pop_front();
    } else {
        news = std::move(m_notifications.front());
        m_notifications.pop_front();
    }
    return true;
}

void NewsQueue::close() {
    LocalLock lock(m_mutex);
    m_closed = true;
    m_changed.notify_all();
}

}  // namespace NorvoStreamClient
