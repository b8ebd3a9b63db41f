#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "AgentView.h"
#include "NorvoStreamClient.h"
#include "StreamSegment.h"

namespace NorvoStreamClient {

class Stream::Impl {
public:
    // The view knows the stream already, and forgets it when this is closed.
    Impl(std::string name, Direction direction, std::shared_ptr<AgentView> view)
        : m_name(std::move(name)), m_direction(direction), m_view(std::move(view)) {}
    ~Impl() { close(); }
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    bool setUp(unsigned int capacity);
    const std::string& name() const { return m_name; }
    Direction direction() const { return m_direction; }
    bool isUp() const { return !m_closed && m_view->isUp(m_name); }
    bool waitUntilUp(Clock::time_point deadline) const {
        return !m_closed && m_view->waitUntilUp(m_name, deadline);
    }
    bool write(const void* data, std::size_t length, Clock::time_point deadline);
    bool flush(Clock::time_point deadline);
    bool read(std::string& message, Clock::time_point deadline);
    void close();

private:
    const std::string m_name;
    const Direction m_direction;
    const std::shared_ptr<AgentView> m_view;
    StreamSegment m_segment;
    std::atomic<bool> m_closed = false;
};

// The point in time `timeout` from now; the end of time when that lies beyond it.
Clock::time_point deadlineAfter(std::chrono::milliseconds timeout);

}  // namespace NorvoStreamClient
