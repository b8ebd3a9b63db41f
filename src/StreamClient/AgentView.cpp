#include "AgentView.h"

#include <algorithm>

#include "Conversions.h"
#include "InfoSegments.h"
#include "MessageBuilder.h"

namespace NorvoStreamClient {

using namespace std::chrono_literals;
using VDIFrameworkCommon::LocalLock;
using VDIFrameworkCommon::MessageBuilder;

namespace {

// A stream that is not up by then is requested again: the request may have been lost.
constexpr auto kStreamRequestPause = 3s;
constexpr auto kProcessIdPause = 500ms;
constexpr auto kDoubtPause = 100ms;
// Whether streams are up is polled soon, then less and less often.
constexpr auto kFirstPollPause = 5ms;
constexpr auto kLongestPollPause = 1s;
constexpr auto kSignOfLifePause = 2s;
// A living agent takes a request within about 20 ms, unless its process is starved or suspended.
constexpr auto kPatience = 2s;
constexpr auto kPatienceWithTheAbsent = 200ms;
// A longer gap between two looks means that this process was suspended and others may have gone on.
constexpr auto kStandstill = 3s;
// More streams than an agent serves.
constexpr std::size_t kMostReported = 1024;

template <class NamedEntry>
std::string requestText(const NamedEntry& stream) {
    const auto& [name, entry] = stream;
    MessageBuilder text;
    text.append(entry.direction == Direction::Read ? "CreateStream" : "OpenStream");
    text.append(name).append(entry.capacity);
    return text.msg();
}

}  // namespace

Status AgentView::mayAddStream(const std::string& name) const {
    LocalLock lock(m_mutex);
    if (m_closed) return Reason::Closed;
    return m_streams.contains(name) ? Reason::AlreadyOpen : Status();
}

Status AgentView::addStream(const std::string& name, Direction direction, unsigned int capacity) {
    LocalLock lock(m_mutex);
    if (m_closed) return Reason::Closed;
    if (!m_streams.try_emplace(name, Entry{direction, capacity}).second) return Reason::AlreadyOpen;
    m_changed.notify_all();
    return {};
}

void AgentView::removeStream(const std::string& name) {
    LocalLock lock(m_mutex);
    m_streams.erase(name);
    m_changed.notify_all();
}

Status AgentView::connectionStanding() const {
    if (m_closed) return Reason::Closed;
    if (!m_state.isThere()) return Reason::NoAgent;
    return m_state.isConnected() ? Status() : Reason::NotConnected;
}

Status AgentView::standingOf(const std::string& name) const {
    const auto found = m_streams.find(name);
    if (found == m_streams.end()) return Reason::Closed;
    const Status connection = connectionStanding();
    if (!connection || found->second.up) return connection;
    return found->second.otherDirection ? Reason::InUseOtherDirection : Reason::NotTakenUp;
}

Status AgentView::standing(const std::string& name) const {
    LocalLock lock(m_mutex);
    return standingOf(name);
}

Status AgentView::waitUntilUp(const std::string& name, Clock::time_point deadline) const {
    LocalLock lock(m_mutex);
    for (;;) {
        Status now = standingOf(name);
        const bool mayComeUp = now.reason() == Reason::NoAgent ||
                               now.reason() == Reason::NotConnected ||
                               now.reason() == Reason::NotTakenUp;
        if (!mayComeUp || Clock::now() >= deadline) return now;
        m_changed.wait_until(m_mutex, deadline);
    }
}

void AgentView::forgetDirections(const std::string& name, const std::string& opposite) {
    LocalLock lock(m_mutex);
    m_reported.erase(name);
    m_reported.erase(opposite);
}

bool AgentView::isConnected() const {
    LocalLock lock(m_mutex);
    return static_cast<bool>(connectionStanding());
}

Status AgentView::waitUntilConnected(Clock::time_point deadline) const {
    LocalLock lock(m_mutex);
    while (!m_closed && !m_state.isConnected() && Clock::now() < deadline)
        m_changed.wait_until(m_mutex, deadline);
    return connectionStanding();
}

Status AgentView::agentStanding() const {
    LocalLock lock(m_mutex);
    if (m_closed) return Reason::Closed;
    return m_state.isThere() ? Status() : Reason::NoAgent;
}

std::optional<Direction> AgentView::waitForDirection(const std::string& name,
                                                     const std::string& opposite,
                                                     Clock::time_point deadline) const {
    LocalLock lock(m_mutex);
    for (;;) {
        if (const auto found = m_reported.find(name); found != m_reported.end())
            return found->second;
        if (const auto found = m_reported.find(opposite); found != m_reported.end())
            return found->second == Direction::Read ? Direction::Write : Direction::Read;
        if (m_closed || Clock::now() >= deadline) return std::nullopt;
        m_changed.wait_until(m_mutex, deadline);
    }
}

AgentView::Agent AgentView::agent() const {
    LocalLock lock(m_mutex);
    return {m_state.processId(), m_state.generation()};
}

AgentView::Heard AgentView::hear(const Notification& notification, Clock::time_point now) {
    LocalLock lock(m_mutex);
    m_lastHeard = now;
    m_nextSignOfLife = now + kSignOfLifePause;
    Heard heard{apply(AgentState::Event::Answers), true};
    if (notification.name == "ChannelUp") {
        heard.connectionChange = apply(AgentState::Event::ChannelUp);
        requestAllAgain();
    } else if (notification.name == "ChannelDown") {
        heard.connectionChange = apply(AgentState::Event::ChannelDown);
    } else if (notification.name == "VCProcessId") {
        const unsigned int known = m_state.processId();
        heard.connectionChange = hearProcessId(notification, now);
        heard.isNews = known != m_state.processId() || heard.connectionChange || m_expectsProcessId;
        m_expectsProcessId = false;
    } else if (notification.name == "StreamUp") {
        hearStreamUp(notification);
    }
    m_changed.notify_all();
    return heard;
}

std::optional<bool> AgentView::hearProcessId(const Notification& notification,
                                             Clock::time_point now) {
    if (notification.fields.size() < 2) return std::nullopt;
    const unsigned int before = m_state.processId();
    const bool wasDoubted = m_state.isDoubted();
    const auto change = m_state.hearProcess(
        VDIFrameworkCommon::toUnsignedInt(notification.fields[0]), notification.fields[1] == "1");
    if (m_state.isDoubted() && !wasDoubted) m_nextProcessId = now + kDoubtPause;
    return follow(change, before);
}

void AgentView::hearStreamUp(const Notification& notification) {
    if (notification.fields.size() < 2) return;
    const bool reads = notification.fields[1] == "READ";
    if (m_reported.size() < kMostReported)
        m_reported[notification.fields[0]] = reads ? Direction::Read : Direction::Write;
    const auto found = m_streams.find(notification.fields[0]);
    if (found == m_streams.end()) return;
    Entry& entry = found->second;
    entry.up = (entry.direction == Direction::Read) == reads;
    entry.otherDirection = !entry.up;
}

void AgentView::expectProcessId() {
    LocalLock lock(m_mutex);
    m_expectsProcessId = true;
}

std::optional<bool> AgentView::apply(AgentState::Event event) {
    const unsigned int before = m_state.processId();
    return follow(m_state.apply(event), before);
}

std::optional<bool> AgentView::follow(std::optional<bool> change, unsigned int processIdBefore) {
    if (change || m_state.processId() != processIdBefore) requestAllAgain();
    return change;
}

void AgentView::requestAllAgain() {
    m_reported.clear();
    for (auto& [name, entry] : m_streams) {
        entry.up = false;
        entry.otherDirection = false;
        entry.nextRequest = {};
    }
}

bool AgentView::wantsPoll() const {
    return m_state.isConnected() && std::any_of(m_streams.begin(), m_streams.end(),
                                                [](const auto& entry) { return !entry.second.up; });
}

// An agent of an earlier version answers for all its streams.
std::string AgentView::pollText() const {
    MessageBuilder text;
    text.append("RequestNotifyStream");
    for (const auto& [name, entry] : m_streams) {
        if (!entry.up) text.append(name);
    }
    std::string whole = text.msg();
    return whole.size() <= VDIFrameworkCommon::kInfoSegmentSize ? whole : "RequestNotifyStream";
}

std::chrono::milliseconds AgentView::patience() const {
    return m_state.isThere() ? kPatience : kPatienceWithTheAbsent;
}

void AgentView::noticeStandstill(Clock::time_point now) {
    if (m_lastLook != Clock::time_point{} && now - m_lastLook > kStandstill)
        m_state.forgetProcess();
    m_lastLook = now;
}

// For a stream that is to be requested by then.
std::optional<AgentView::Due> AgentView::streamRequest(Clock::time_point by,
                                                       Clock::time_point now) const {
    for (const auto& stream : m_streams) {
        if (!stream.second.up && stream.second.nextRequest <= by)
            return Due{requestText(stream), stream.first, patience(), now};
    }
    return std::nullopt;
}

std::optional<AgentView::Due> AgentView::due(Clock::time_point now) {
    LocalLock lock(m_mutex);
    noticeStandstill(now);
    if (wantsProcessId() && m_nextProcessId <= now) {
        m_nextProcessId = now + kProcessIdPause;
        return Due{"RequestVCProcessId", {}, patience(), now};
    }
    if (!m_state.isThere()) return std::nullopt;
    if (auto first = streamRequest({}, now)) return first;
    if (wantsPoll() && m_nextPoll <= now) {
        m_nextPoll = now + m_pollPause;
        m_pollPause = std::min<Clock::duration>(m_pollPause * 2, kLongestPollPause);
        return Due{pollText(), {}, patience(), now};
    }
    if (auto repeated = streamRequest(now, now)) return repeated;
    // While disconnected it also requests the state: the notification of a change may have been
    // lost.
    if (m_nextSignOfLife <= now)
        return Due{m_state.isConnected() ? "" : "RequestVCProcessId", {}, patience(), now};
    return std::nullopt;
}

std::optional<bool> AgentView::finished(const Due& request, bool taken, Clock::time_point now) {
    LocalLock lock(m_mutex);
    // A starting agent drops what is in its segment, but its notifications still arrive.
    if (!taken) return m_lastHeard > request.since ? std::nullopt : losesAgent(now);
    apply(AgentState::Event::Answers);
    m_nextSignOfLife = now + kSignOfLifePause;
    const auto found = m_streams.find(request.stream);
    // The stream may have been closed and reopened with other parameters meanwhile.
    if (found != m_streams.end() && requestText(*found) == request.text) {
        auto& next = found->second.nextRequest;
        if (next == Clock::time_point{}) {
            m_pollPause = kFirstPollPause;
            m_nextPoll = now + m_pollPause;
        }
        next = now + kStreamRequestPause;
    }
    return std::nullopt;
}

std::optional<bool> AgentView::losesAgent(Clock::time_point now) {
    m_nextProcessId = now + kProcessIdPause;
    const auto change = apply(AgentState::Event::Silent);
    requestAllAgain();
    m_changed.notify_all();
    return change;
}

void AgentView::suspect() {
    LocalLock lock(m_mutex);
    m_nextSignOfLife = {};
    m_changed.notify_all();
}

Clock::time_point AgentView::nextDue() const {
    auto next = wantsProcessId() ? m_nextProcessId : Clock::time_point::max();
    if (!m_state.isThere()) return next;
    next = std::min(next, m_nextSignOfLife);
    for (const auto& [name, entry] : m_streams) {
        if (!entry.up) next = std::min(next, entry.nextRequest);
    }
    return wantsPoll() ? std::min(next, m_nextPoll) : next;
}

bool AgentView::waitForDue(Clock::time_point latest) const {
    LocalLock lock(m_mutex);
    for (;;) {
        const auto until = std::min(nextDue(), latest);
        if (m_closed || Clock::now() >= until) return !m_closed;
        m_changed.wait_until(m_mutex, until);
    }
}

void AgentView::close() {
    LocalLock lock(m_mutex);
    m_closed = true;
    m_changed.notify_all();
}

}  // namespace NorvoStreamClient
