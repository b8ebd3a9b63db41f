#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>

#include "AgentView.h"
#include "ForkGuard.h"
#include "NorvoStreamClient.h"
#include "StreamSegment.h"

namespace NorvoStreamClient {

class Stream::Impl {
public:
    // The stream joins the view once it is set up, and leaves it on close().
    Impl(std::string name, Direction direction, std::shared_ptr<AgentView> view)
        : m_name(std::move(name)), m_direction(direction), m_view(std::move(view)) {}
    // A stream that could not be opened, and why.
    Impl(std::string name, Direction direction, Status failure)
        : m_name(std::move(name)),
          m_direction(direction),
          m_opened(failure),
          m_end(failure),
          m_closed(true) {}
    ~Impl() { close(); }
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    Status setUp(unsigned int capacity, StreamSegment::Claim claim);
    // The result of opening it.
    const Status& status() const { return m_opened; }
    const std::string& name() const { return m_name; }
    Direction direction() const { return m_direction; }
    bool isUp() const { return !m_closed && m_view->isUp(m_name); }
    Status waitUntilUp(Clock::time_point deadline) const {
        return m_closed ? m_end : m_view->waitUntilUp(m_name, deadline);
    }
    Status write(const void* data, std::size_t length, Clock::time_point deadline);
    Status flush(Clock::time_point deadline);
    Status read(std::string& message, Clock::time_point deadline);
    void close();
    bool isForkedChild() const { return m_process.isForkedChild(); }

private:
    Status whyNothingCame() const;
    // Keeps the earliest of several agents.
    void noteUnflushed(const AgentView::Agent& agent);
    std::optional<AgentView::Agent> takeUnflushed();
    bool isServedBy(const AgentView::Agent& agent) const;

    const std::string m_name;
    const Direction m_direction;
    const std::shared_ptr<AgentView> m_view;
    const Status m_opened;
    const Status m_end{Reason::Closed};  // what calls return once it is closed
    StreamSegment m_segment;
    std::atomic<bool> m_closed = false;
    VDIFrameworkCommon::LocalMutex m_unflushedMutex;
    // The agent that got the first message after the last flush.
    std::optional<AgentView::Agent> m_unflushed NORVO_GUARDED_BY(m_unflushedMutex);
    const ForkGuard m_process;
};

// The time `timeout` from now, clamped to Clock::time_point::max().
Clock::time_point deadlineAfter(std::chrono::milliseconds timeout);

}  // namespace NorvoStreamClient
