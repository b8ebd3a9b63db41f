#pragma once

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "KLTLogger.h"
#include "LocalMutex.h"
#include "LogFile.h"

namespace KLT::kltlogger {

// Writes records to their destination. Records for a file are buffered; the buffer is written by a
// record of severity 1 to 3, when full, one second after its first record (by the appender's own
// thread), and by flush(). Where that thread cannot run (it could not be started, finish() was
// called, this is a forked child), every record is written at once.
//
// Thread-safe. Two locks: appending takes only the buffer's, for the duration of a copy; writing
// holds the file's while others continue to append, up to a full buffer.
class LogAppender {
public:
    static constexpr std::size_t kBufferBytes = std::size_t{64} * 1024;

    using Time = std::chrono::steady_clock::time_point;
    // Called by the thread before it writes, with no lock held; may append. Returns when it wants
    // to be called again, Time::max() for never.
    using BeforeWriting = Time (*)();

    explicit LogAppender(BeforeWriting beforeWriting = nullptr,
                         off_t fileLimit = LogFile::kDefaultLimit)
        : m_beforeWriting(beforeWriting), m_file(fileLimit) {}
    // Writes what is buffered.
    ~LogAppender();
    LogAppender(const LogAppender&) = delete;
    LogAppender& operator=(const LogAppender&) = delete;

    // Empty: no file. False, with the file so far kept, when it cannot be opened.
    bool setFile(const std::string& path);
    void setType(LogAppenderType type);
    // False when a record would go nowhere.
    bool hasDestination() const;

    void append(const LogRecord& record);
    void flush();
    // Makes the thread write, and so call BeforeWriting, at about `time`.
    void wakeAt(Time time);

    // Writes what is buffered and ends the thread; later records are written at once.
    void finish();

    // Around fork(), for the one appender of the process: nothing is being written while it forks,
    // and the child neither repeats the parent's records nor waits for the parent's thread.
    void beforeFork() NORVO_NO_THREAD_SAFETY_ANALYSIS;
    void afterForkInParent() NORVO_NO_THREAD_SAFETY_ANALYSIS;
    void afterForkInChild() NORVO_NO_THREAD_SAFETY_ANALYSIS;

private:
    using LocalMutex = VDIFrameworkCommon::LocalMutex;

    void bufferRecord(const LogRecord& record);
    // Writes the buffer if it holds at least `minimum` bytes.
    void drain(std::size_t minimum);
    void startTimer() NORVO_REQUIRES(m_fileMutex);
    void runTimer();
    void setDue(Time time) NORVO_REQUIRES(m_bufferMutex);

    const BeforeWriting m_beforeWriting;
    std::atomic<LogAppenderType> m_type = LogAppenderType::File;
    std::atomic<bool> m_fileOpen = false;

    LocalMutex m_fileMutex;
    LogFile m_file NORVO_GUARDED_BY(m_fileMutex);
    std::string m_draining NORVO_GUARDED_BY(m_fileMutex);

    LocalMutex m_bufferMutex NORVO_ACQUIRED_AFTER(m_fileMutex);
    VDIFrameworkCommon::LocalCondition m_wake;
    std::string m_buffer NORVO_GUARDED_BY(m_bufferMutex);
    bool m_timerRuns NORVO_GUARDED_BY(m_bufferMutex) = false;
    // A record has arrived since the thread last wrote.
    bool m_recordWaits NORVO_GUARDED_BY(m_bufferMutex) = false;
    Time m_due NORVO_GUARDED_BY(m_bufferMutex) = Time::max();  // for the thread
    bool m_finished NORVO_GUARDED_BY(m_bufferMutex) = false;
    std::thread m_timer NORVO_GUARDED_BY(m_fileMutex);
};

}  // namespace KLT::kltlogger
