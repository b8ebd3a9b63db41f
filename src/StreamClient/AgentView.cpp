#include "AgentView.h"

#include <algorithm>

#include "Conversions.h"
#include "MessageBuilder.h"

namespace NorvoStreamClient {

using namespace std::chrono_literals;
using VDIFrameworkCommon::LocalLock;
using VDIFrameworkCommon::MessageBuilder;

namespace {

// A lost request is repeated after this time.
constexpr auto kRequestPause = 1s;
// A roll call (RequestNotifyStream) is answered with one message per stream, each of which takes
// the agent about 20 ms: ask soon, then ever more rarely.
constexpr auto kFirstRollCall = 30ms;
constexpr auto kLongestRollCallPause = 1s;
constexpr auto kHeartbeatUnconnected = 500ms;
constexpr auto kHeartbeatConnected = 3s;
// An agent that is asked every 3 s and says nothing for so long has gone.
constexpr auto kSilenceOfTheGone = 8s;

std::string requestText(const std::string& name, Direction direction, unsigned int capacity) {
    MessageBuilder text;
    text.append(direction == Direction::Read ? "CreateStream" : "OpenStream");
    text.append(name).append(capacity);
    return text.msg();
}

}  // namespace

bool AgentView::addStream(const std::string& name, Direction direction, unsigned int capacity) {
    LocalLock lock(m_mutex);
    if (m_closed) return false;
    const auto now = Clock::now();
    const bool added = m_streams.try_emplace(name, Entry{direction, capacity, false, now}).second;
    if (added) {
        m_rollCallPause = kFirstRollCall;
        m_nextRollCall = now + kFirstRollCall;
        m_changed.notify_all();
    }
    return added;
}

void AgentView::removeStream(const std::string& name) {
    LocalLock lock(m_mutex);
    m_streams.erase(name);
    m_changed.notify_all();
}

bool AgentView::isUp(const std::string& name) const {
    LocalLock lock(m_mutex);
    const auto found = m_streams.find(name);
    return !m_closed && m_connected && found != m_streams.end() && found->second.up;
}

bool AgentView::waitUntilUp(const std::string& name, Clock::time_point deadline) const {
    LocalLock lock(m_mutex);
    for (;;) {
        const auto found = m_streams.find(name);
        if (m_closed || found == m_streams.end()) return false;
        if (m_connected && found->second.up) return true;
        if (Clock::now() >= deadline) return false;
        m_changed.wait_until(m_mutex, deadline);
    }
}

bool AgentView::isConnected() const {
    LocalLock lock(m_mutex);
    return m_connected && !m_closed;
}

bool AgentView::waitUntilConnected(Clock::time_point deadline) const {
    LocalLock lock(m_mutex);
    while (!m_closed && !m_connected && Clock::now() < deadline) {
        m_changed.wait_until(m_mutex, deadline);
    }
    return m_connected && !m_closed;
}

unsigned int AgentView::agentProcessId() const {
    LocalLock lock(m_mutex);
    return m_agentPid;
}

std::optional<bool> AgentView::hear(const Notification& notification, Clock::time_point now) {
    LocalLock lock(m_mutex);
    m_lastHeard = now;
    std::optional<bool> change;
    if (notification.name == "ChannelUp") {
        change = setConnected(true);
        askAgain(now);
    } else if (notification.name == "ChannelDown") {
        change = setConnected(false);
    } else if (notification.name == "VCProcessId") {
        change = hearProcessId(notification, now);
    } else if (notification.name == "StreamUp" && notification.fields.size() >= 2) {
        const auto found = m_streams.find(notification.fields[0]);
        const bool reads = notification.fields[1] == "READ";
        if (found != m_streams.end() && (found->second.direction == Direction::Read) == reads) {
            found->second.up = true;
        }
    }
    m_changed.notify_all();
    return change;
}

std::optional<bool> AgentView::hearProcessId(const Notification& notification,
                                             Clock::time_point now) {
    if (notification.fields.size() < 2) return std::nullopt;
    const unsigned int pid = VDIFrameworkCommon::toUnsignedInt(notification.fields[0]);
    if (pid != m_agentPid) {
        m_agentPid = pid;
        for (auto& [name, entry] : m_streams) entry.up = false;
        askAgain(now);
    }
    return setConnected(notification.fields[1] == "1");
}

std::optional<bool> AgentView::setConnected(bool connected) {
    if (m_connected == connected) return std::nullopt;
    m_connected = connected;
    if (!connected) {
        for (auto& [name, entry] : m_streams) entry.up = false;
    }
    return connected;
}

void AgentView::askAgain(Clock::time_point now) {
    for (auto& [name, entry] : m_streams) entry.nextRequest = now;
    m_rollCallPause = kFirstRollCall;
    m_nextRollCall = now + kFirstRollCall;
}

bool AgentView::anyStreamDown() const {
    return std::any_of(m_streams.begin(), m_streams.end(),
                       [](const auto& entry) { return !entry.second.up; });
}

std::vector<std::string> AgentView::takeDue(Clock::time_point now, bool& lost) {
    LocalLock lock(m_mutex);
    lost = m_connected && now - m_lastHeard > kSilenceOfTheGone && setConnected(false).has_value();
    std::vector<std::string> due;
    for (auto& [name, entry] : m_streams) {
        if (entry.up || entry.nextRequest > now) continue;
        due.push_back(requestText(name, entry.direction, entry.capacity));
        entry.nextRequest = now + kRequestPause;
    }
    if (m_connected && anyStreamDown() && m_nextRollCall <= now) {
        due.emplace_back("RequestNotifyStream");
        m_nextRollCall = now + m_rollCallPause;
        m_rollCallPause = std::min<Clock::duration>(m_rollCallPause * 2, kLongestRollCallPause);
    }
    if (m_nextHeartbeat <= now) {
        const auto pause =
            m_connected ? Clock::duration(kHeartbeatConnected) : kHeartbeatUnconnected;
        if (!m_connected || now - m_lastHeard >= kHeartbeatConnected) {
            due.emplace_back("RequestVCProcessId");
        }
        m_nextHeartbeat = now + pause;
    }
    return due;
}

Clock::time_point AgentView::nextDue() const {
    auto next = m_nextHeartbeat;
    for (const auto& [name, entry] : m_streams) {
        if (!entry.up) next = std::min(next, entry.nextRequest);
    }
    if (m_connected && anyStreamDown()) next = std::min(next, m_nextRollCall);
    return next;
}

bool AgentView::waitForWork() const {
    LocalLock lock(m_mutex);
    while (!m_closed) {
        const auto next = nextDue();
        if (next <= Clock::now()) return true;
        m_changed.wait_until(m_mutex, next);
    }
    return false;
}

void AgentView::close() {
    LocalLock lock(m_mutex);
    m_closed = true;
    m_changed.notify_all();
}

}  // namespace NorvoStreamClient
