#include "NewsQueue.h"

namespace NorvoStreamClient {

using VDIFrameworkCommon::LocalLock;

void NewsQueue::add(News news) {
    LocalLock lock(m_mutex);
    if (m_closed) return;
    if (m_waiting.size() >= kMost) m_waiting.pop_front();
    m_waiting.push_back(std::move(news));
    m_changed.notify_one();
}

bool NewsQueue::take(News& news, Clock::time_point deadline) {
    LocalLock lock(m_mutex);
    while (m_waiting.empty() && !m_closed && Clock::now() < deadline)
        m_changed.wait_until(m_mutex, deadline);
    if (m_waiting.empty()) return false;
    news = std::move(m_waiting.front());
    m_waiting.pop_front();
    return true;
}

void NewsQueue::close() {
    LocalLock lock(m_mutex);
    m_closed = true;
    m_changed.notify_all();
}

}  // namespace NorvoStreamClient
