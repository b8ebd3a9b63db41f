#include <algorithm>
#include <limits>
#include <thread>

#include "Log.h"
#include "StreamImpl.h"

NORVO_LOG_SOURCE("src/StreamClient/Stream")

namespace NorvoStreamClient {

Clock::time_point deadlineAfter(std::chrono::milliseconds timeout) {
    const auto now = Clock::now();
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::time_point::max() - now);
    if (timeout >= left) return Clock::time_point::max();
    return now + std::max(timeout, std::chrono::milliseconds(0));
}

bool Stream::Impl::setUp(unsigned int capacity) {
    return m_direction == Direction::Read ? m_segment.Open(m_name, capacity)
                                          : m_segment.Create(m_name, capacity);
}

bool Stream::Impl::write(const void* data, std::size_t length, Clock::time_point deadline) {
    if (m_direction != Direction::Write || (!data && length > 0) ||
        length > std::numeric_limits<unsigned int>::max()) {
        NORVO_LOG(Warning, "cannot write ", length, " bytes to the stream ", m_name);
        return false;
    }
    if (length == 0) return !m_closed;
    while (waitUntilUp(deadline)) {
        if (m_segment.write(data, static_cast<unsigned int>(length), deadline)) return true;
        m_view->suspect();
        if (Clock::now() >= deadline) return false;
    }
    return false;
}

bool Stream::Impl::flush(Clock::time_point deadline) {
    constexpr auto kPause = std::chrono::milliseconds(1);
    while (m_direction == Direction::Write && !m_closed && !m_segment.isDrained()) {
        if (Clock::now() >= deadline) return false;
        std::this_thread::sleep_for(kPause);
    }
    return !m_closed;
}

bool Stream::Impl::read(std::string& message, Clock::time_point deadline) {
    constexpr auto kLongestWait = std::chrono::milliseconds(1000);
    message.clear();
    while (m_direction == Direction::Read && !m_closed) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        const auto wait = std::clamp(left, std::chrono::milliseconds(0), kLongestWait);
        unsigned int length = 0;
        message = m_segment.ReadData(length, static_cast<unsigned int>(wait.count()));
        if (!message.empty()) return true;
        if (Clock::now() >= deadline) return false;
    }
    return false;
}

void Stream::Impl::close() {
    if (m_closed.exchange(true)) return;
    m_view->removeStream(m_name);
    m_segment.Close();
}

Stream::Stream(std::shared_ptr<Impl> impl) : m_impl(std::move(impl)) {}
Stream::~Stream() { m_impl->close(); }

const std::string& Stream::name() const { return m_impl->name(); }
Direction Stream::direction() const { return m_impl->direction(); }
bool Stream::isUp() const { return m_impl->isUp(); }
bool Stream::waitUntilUp(std::chrono::milliseconds timeout) {
    return m_impl->waitUntilUp(deadlineAfter(timeout));
}
bool Stream::write(const void* data, std::size_t length, std::chrono::milliseconds timeout) {
    return m_impl->write(data, length, deadlineAfter(timeout));
}
bool Stream::flush(std::chrono::milliseconds timeout) {
    return m_impl->flush(deadlineAfter(timeout));
}
bool Stream::read(std::string& message, std::chrono::milliseconds timeout) {
    return m_impl->read(message, deadlineAfter(timeout));
}
void Stream::close() { m_impl->close(); }

}  // namespace NorvoStreamClient
