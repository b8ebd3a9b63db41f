#include "LogAppender.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <system_error>

#include "Contained.h"
#include "LogLine.h"

namespace KLT::kltlogger {

using VDIFrameworkCommon::LocalLock;

namespace {

constexpr std::chrono::seconds kPeriod{1};

void writeToStderr(const LogRecord& record) {
    const LogLine line(record);
    std::string text;
    text.reserve(line.size());
    line.appendTo(text);
    [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, text.data(), text.size());
}

}  // namespace

LogAppender::~LogAppender() { finish(); }

bool LogAppender::setFile(const std::string& path) {
    flush();
    LocalLock lock(m_fileMutex);
    if (!m_file.open(path)) return false;
    m_fileOpen = !path.empty();
    if (m_fileOpen) startTimer();
    return true;
}

void LogAppender::setType(LogAppenderType type) {
    flush();
    m_type = type;
}

bool LogAppender::hasDestination() const {
    return m_type == LogAppenderType::Stderr || (m_type == LogAppenderType::File && m_fileOpen);
}

void LogAppender::append(const LogRecord& record) {
    switch (m_type.load(std::memory_order_relaxed)) {
        case LogAppenderType::File:
            if (m_fileOpen.load(std::memory_order_relaxed)) bufferRecord(record);
            break;
        case LogAppenderType::Stderr:
            writeToStderr(record);
            break;
        case LogAppenderType::None:
            break;
    }
}

void LogAppender::bufferRecord(const LogRecord& record) {
    const LogLine line(record);
    bool atOnce = record.severity <= Warning;
    bool full = false;
    {
        LocalLock lock(m_bufferMutex);
        line.appendTo(m_buffer);
        full = m_buffer.size() >= kBufferBytes;
        if (!m_timerRuns) {
            atOnce = true;
        } else if (!m_recordWaits) {
            m_recordWaits = true;
            setDue(std::chrono::steady_clock::now() + kPeriod);
        }
    }
    if (atOnce) {
        drain(1);
    } else if (full) {
        drain(kBufferBytes);
    }
}

void LogAppender::drain(std::size_t minimum) {
    LocalLock file(m_fileMutex);
    {
        LocalLock buffer(m_bufferMutex);
        if (m_buffer.size() < minimum) return;
        m_buffer.swap(m_draining);
    }
    m_file.write(m_draining);
    m_draining.clear();
}

void LogAppender::flush() { drain(1); }

void LogAppender::startTimer() {
    LocalLock lock(m_bufferMutex);
    if (m_timerRuns || m_finished) return;
    try {
        m_timer = std::thread([this] { runTimer(); });
        m_timerRuns = true;
    } catch (const std::system_error&) {
        m_timerRuns = false;
    }
}

void LogAppender::wakeAt(Time time) {
    LocalLock lock(m_bufferMutex);
    setDue(time);
}

void LogAppender::setDue(Time time) {
    if (time >= m_due) return;
    m_due = time;
    m_wake.notify_one();
}

void LogAppender::runTimer() {
    LocalLock lock(m_bufferMutex);
    while (!m_finished) {
        const Time now = std::chrono::steady_clock::now();
        if (m_due == Time::max()) {
            m_wake.wait(m_bufferMutex);
        } else if (now < m_due) {
            m_wake.wait_until(m_bufferMutex, m_due);
        } else {
            m_due = Time::max();
            m_recordWaits = false;
            lock.unlock();
            Time next = Time::min();  // retried after a period on failure
            VDIFrameworkCommon::contained("Writing the log", [&] {
                const Time wanted = m_beforeWriting ? m_beforeWriting() : Time::max();
                drain(1);
                next = wanted;
            });
            lock.lock();
            setDue(std::max(next, now + kPeriod));
        }
    }
}

void LogAppender::finish() {
    std::thread timer;
    {
        LocalLock file(m_fileMutex);
        LocalLock buffer(m_bufferMutex);
        m_finished = true;
        m_timerRuns = false;
        timer = std::move(m_timer);
    }
    m_wake.notify_all();
    if (timer.joinable()) timer.join();
    flush();
}

void LogAppender::beforeFork() {
    m_fileMutex.lock();
    m_bufferMutex.lock();
}

void LogAppender::afterForkInParent() {
    m_bufferMutex.unlock();
    m_fileMutex.unlock();
}

void LogAppender::afterForkInChild() {
    m_buffer.clear();
    m_timerRuns = false;
    m_recordWaits = false;
    m_due = Time::max();
    std::construct_at(&m_timer);  // the thread and its wait exist only in the parent
    std::construct_at(&m_wake);
    LogLine::forgetIds();
    afterForkInParent();
}

}  // namespace KLT::kltlogger
