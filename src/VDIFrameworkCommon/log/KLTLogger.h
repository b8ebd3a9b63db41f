// The logging service. Code that logs uses the macros of Log.h; this is what lies beneath them, and
// what sets the log up.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
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

// One log record. The views are valid during the call that gets the record.
struct LogRecord {
    int severity;
    std::string_view logger;
    std::string_view source;
    int line;
    std::string_view operation;
    std::string_view message;
};

// Gets every record that is written, whatever the appender; called on the logging thread, from any
// thread, with no lock held. Must not log.
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

// Records of a severity up to this number are written: the threshold (default Info;
// NORVO_VDI_LOG_LEVEL=0..6 changes it) while a logging object exists and has somewhere to write, an
// open file, standard error or a sink; else 0.
extern std::atomic<int> g_activeThreshold;

inline bool isEnabled(int severity) {
    return severity <= g_activeThreshold.load(std::memory_order_relaxed);
}

// Overrides the default and the environment. Values outside 0..6 are clamped.
void setThreshold(int severity);

// Hands every record to `sink` as well, and makes a logging object when there is none (without a
// file). Null takes the sink away again. Returns the one that was set before.
std::shared_ptr<LogSink> setSink(std::shared_ptr<LogSink> sink);

// Has the log call LogRepeats::tellDue() about then.
void tellRepeatsBy(std::chrono::steady_clock::time_point time);

}  // namespace KLT::kltlogger

// The handle of the logger of that name; the same handle for the same name, valid for the life of
// the process.
KLT::kltlogger::LoggerHandle KLTLogger_getLogger(const char* name);
const char* KLTLogger_getName(KLT::kltlogger::LoggerHandle handle);

// Empty before VirtualChannelLogger_init (or a sink) has made it.
std::shared_ptr<KLT::kltlogger::VirtualChannelLog> VirtualChannelLogger_getInstance();

// Sets the log file, making its directory (owner only) when it is missing; a second call moves the
// log to the new path. An empty path means no file. A file that cannot be opened is not a failure:
// records still go to the sink. One that is lost later is tried again with every write.
void VirtualChannelLogger_init(const std::string& path);
void VirtualChannelLogger_setAppenderType(KLT::kltlogger::LogAppenderType type);

// Writes buffered records out.
void VirtualChannelLogger_flush();
// The same, unless the log was flushed less than 100 ms ago: for places that may be reached in a
// storm.
void VirtualChannelLogger_flushBufferIfAllowed();
