// The logging service behind the macros of Log.h, and its set-up.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace KLT::kltlogger {

// Severities. Failures are 2, rejected input 3, notable events 4 and 5, step-by-step tracing 6.
enum Severity : int { Fatal = 1, Error = 2, Warning = 3, Notice = 4, Info = 5, Trace = 6 };

enum class LogAppenderType {
    File,    // buffered file that rolls over (the default)
    Stderr,  // each record at once to standard error
    None,    // records are dropped
};

// One log record. The views are valid during the call that receives the record.
struct LogRecord {
    int severity;
    std::string_view logger;
    std::string_view source;
    int line;
    std::string_view operation;
    std::string_view message;
};

// Receives every record that is written, whatever the appender. Called on the thread that logs,
// with no lock held. Must not log.
class LogSink {
public:
    virtual ~LogSink() = default;
    virtual void write(const LogRecord& record) = 0;
};

class Logger;
using LoggerHandle = const Logger*;

class VirtualChannelLog {
public:
    virtual ~VirtualChannelLog() = default;
    virtual void log(std::string_view logger, int severity, std::string_view source, int line,
                     std::string_view operation, std::string_view message) = 0;
};

// Records up to this severity are written: the threshold (default Info; NORVO_VDI_LOG_LEVEL=0..6
// changes it) while a logging object exists and has a destination (an open file, standard error or
// a sink), else 0.
extern std::atomic<int> g_activeThreshold;

inline bool isEnabled(int severity) {
    return severity <= g_activeThreshold.load(std::memory_order_relaxed);
}

// The threshold that `text`, the value of NORVO_VDI_LOG_LEVEL, asks for (without a
// text: the default); nothing when it is none.
std::optional<int> thresholdIn(std::string_view text);

// Overrides the default and the environment. Values outside 0..6 are clamped.
void setThreshold(int severity);

// Also passes every record to `sink`; creates a logging object (without a file) if there is none.
// Null removes the sink. Returns the previous sink.
std::shared_ptr<LogSink> setSink(std::shared_ptr<LogSink> sink);

// Makes the log call LogRepeats::reportDue() at about `time`.
void scheduleReport(std::chrono::steady_clock::time_point time);

}  // namespace KLT::kltlogger

// The handle of the logger of that name; the same handle for the same name, valid for the life of
// the process.
KLT::kltlogger::LoggerHandle KLTLogger_getLogger(const char* name);
const char* KLTLogger_getName(KLT::kltlogger::LoggerHandle handle);

// Null before VirtualChannelLogger_init (or a sink) has created it.
std::shared_ptr<KLT::kltlogger::VirtualChannelLog> VirtualChannelLogger_getInstance();

// Sets the log file, creating its directory (owner only) if missing; a second call switches to the
// new path. An empty path means no file. False when the file cannot be opened: records still go to
// the file so far, if any, and to the sink. A file lost later is retried with every write.
bool VirtualChannelLogger_init(const std::string& path);
void VirtualChannelLogger_setAppenderType(KLT::kltlogger::LogAppenderType type);

// Writes buffered records out.
void VirtualChannelLogger_flush();
// The same, unless the log was flushed less than 100 ms ago: for code that may run very often.
void VirtualChannelLogger_flushBufferIfAllowed();
