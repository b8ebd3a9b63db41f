#include <algorithm>
#include <thread>
#include <utility>

#include "MessageAssembler.h"
#include "ProcessLife.h"
#include "SegmentStatus.h"
#include "StreamImpl.h"

namespace NorvoStreamClient {

using VDIFrameworkCommon::LocalLock;

Clock::time_point deadlineAfter(std::chrono::milliseconds timeout) {
    const auto now = Clock::now();
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::time_point::max() - now);
    if (timeout >= left) return Clock::time_point::max();
    return now + std::max(timeout, std::chrono::milliseconds(0));
}

Status Stream::Impl::setUp(unsigned int capacity, StreamSegment::Claim claim) {
    const bool ready = m_direction == Direction::Read ? m_segment.Open(m_name, capacity, claim)
                                                      : m_segment.Create(m_name, capacity, claim);
    return ready ? Status() : statusOf(m_segment.openError());
}

Status Stream::Impl::write(const void* data, std::size_t length, Clock::time_point deadline) {
    if (m_closed) return m_end;
    if (m_direction != Direction::Write || (!data && length > 0)) return Reason::InvalidArgument;
    if (length > shared_memory::MessageAssembler::kLongest) return Reason::TooLong;
    if (length == 0) return {};
    for (;;) {
        if (const Status up = waitUntilUp(deadline); !up) return up;
        const auto agent = m_view->agent();
        if (m_segment.write(data, static_cast<unsigned int>(length), deadline)) {
            noteUnflushed(agent);
            return {};
        }
        if (m_closed) return m_end;
        m_view->suspect();
        if (Clock::now() >= deadline) return Reason::Timeout;
    }
}

void Stream::Impl::noteUnflushed(const AgentView::Agent& agent) {
    LocalLock lock(m_unflushedMutex);
    if (!m_unflushed || m_unflushed->generation > agent.generation) m_unflushed = agent;
}

std::optional<AgentView::Agent> Stream::Impl::takeUnflushed() {
    LocalLock lock(m_unflushedMutex);
    return std::exchange(m_unflushed, std::nullopt);
}

// Whether that agent has served it ever since, as far as can be told: another one would have
// another process.
bool Stream::Impl::isServedBy(const AgentView::Agent& agent) const {
    return m_view->agent().generation == agent.generation && isProcessAlive(agent.processId);
}

Status Stream::Impl::flush(Clock::time_point deadline) {
    constexpr auto kPause = std::chrono::milliseconds(1);
    const auto agent = takeUnflushed();
    for (;;) {
        if (m_closed) return m_end;
        // In this order: an agent still alive after the segment was seen empty is the one that
        // emptied it.
        const bool drained = m_direction == Direction::Read || m_segment.isDrained();
        if (agent && !isServedBy(*agent)) return m_closed ? m_end : Reason::PeerGone;
        if (drained) return m_closed ? m_end : Status();
        if (Clock::now() >= deadline) break;
        std::this_thread::sleep_for(kPause);
    }
    if (agent) noteUnflushed(*agent);
    return Reason::Timeout;
}

Status Stream::Impl::whyNothingCame() const {
    if (m_closed) return m_end;
    const Status standing = m_view->standing(m_name);
    return standing ? Reason::Timeout : standing;
}

Status Stream::Impl::read(std::string& message, Clock::time_point deadline) {
    constexpr auto kLongestWait = std::chrono::milliseconds(200);
    message.clear();
    if (m_closed) return m_end;
    if (m_direction != Direction::Read) return Reason::InvalidArgument;
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        const auto wait = std::clamp(left, std::chrono::milliseconds(0), kLongestWait);
        unsigned int length = 0;
        message = m_segment.ReadData(length, static_cast<unsigned int>(wait.count()));
        if (!message.empty()) return {};
        const Status why = whyNothingCame();
        const bool neverComes =
            why.reason() == Reason::Closed || why.reason() == Reason::InUseOtherDirection;
        if (neverComes || Clock::now() >= deadline) return why;
    }
}

void Stream::Impl::close() {
    if (m_process.isForkedChild() || m_closed.exchange(true)) return;
    m_view->removeStream(m_name);
    m_segment.Close();
}

Stream::Stream(std::shared_ptr<Impl> impl) : m_impl(std::move(impl)) {}
Stream::~Stream() {
    m_impl->close();
    leaveToParent(m_impl);
}

const std::string& Stream::name() const { return m_impl->name(); }
Direction Stream::direction() const { return m_impl->direction(); }
bool Stream::isUp() const { return m_impl->isUp(); }
Status Stream::waitUntilUp(std::chrono::milliseconds timeout) {
    return m_impl->waitUntilUp(deadlineAfter(timeout));
}
Status Stream::write(const void* data, std::size_t length, std::chrono::milliseconds timeout) {
    return m_impl->write(data, length, deadlineAfter(timeout));
}
Status Stream::flush(std::chrono::milliseconds timeout) {
    return m_impl->flush(deadlineAfter(timeout));
}
Status Stream::read(std::string& message, std::chrono::milliseconds timeout) {
    return m_impl->read(message, deadlineAfter(timeout));
}
void Stream::close() { m_impl->close(); }

}  // namespace NorvoStreamClient
