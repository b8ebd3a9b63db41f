#include "KLTLogger.h"

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <map>

#include "Contained.h"
#include "LocalMutex.h"
#include "Log.h"
#include "LogAppender.h"

namespace KLT::kltlogger {

using VDIFrameworkCommon::LocalLock;
using VDIFrameworkCommon::LocalMutex;

std::atomic<int> g_activeThreshold = 0;

class Logger {
public:
    explicit Logger(std::string name) : m_name(std::move(name)) {}
    const std::string& name() const { return m_name; }

private:
    const std::string m_name;
};

namespace {

int thresholdFromEnvironment() {
    const char* text = std::getenv("NORVO_VDI_LOG_LEVEL");
    return thresholdIn(text ? text : "").value_or(Info);
}

// The one logging object. Never destroyed, because threads may log until the process is gone.
class LogService final : public VirtualChannelLog {
public:
    static LogService& get();

    void log(std::string_view logger, int severity, std::string_view source, int line,
             std::string_view operation, std::string_view message) override {
        if (severity >= Fatal && isEnabled(severity))
            write({severity, logger, source, line, operation, message});
    }

    void write(const LogRecord& record);
    bool init(const std::string& path);
    void setType(LogAppenderType type);
    void setThreshold(int severity);
    std::shared_ptr<LogSink> setSink(std::shared_ptr<LogSink> sink);
    std::shared_ptr<VirtualChannelLog> instance();

    void flush();
    void flushIfAllowed();
    void finish() {
        VDIFrameworkCommon::contained("Counting repeats", [] { LogRepeats::reportDue(true); });
        VDIFrameworkCommon::contained("Writing the log", [this] { m_appender.finish(); });
    }
    void scheduleReport(std::chrono::steady_clock::time_point time) { m_appender.wakeAt(time); }

    void beforeFork() NORVO_NO_THREAD_SAFETY_ANALYSIS;
    void afterFork(bool inChild) NORVO_NO_THREAD_SAFETY_ANALYSIS;

private:
    LogService() = default;
    void publishThreshold() NORVO_REQUIRES(m_mutex);

    LogAppender m_appender{[] { return LogRepeats::reportDue(false); }};
    std::atomic<bool> m_hasSink = false;
    std::atomic<std::int64_t> m_lastFlush = 0;  // steady clock, milliseconds; 0: never

    LocalMutex m_mutex;
    std::shared_ptr<LogSink> m_sink NORVO_GUARDED_BY(m_mutex);
    bool m_made NORVO_GUARDED_BY(m_mutex) = false;
    int m_threshold NORVO_GUARDED_BY(m_mutex) = thresholdFromEnvironment();
};

struct WriteAtExit {
    ~WriteAtExit() { LogService::get().finish(); }
};

LogService& LogService::get() {
    static LogService* const service = [] {
        auto* made = new LogService;
        pthread_atfork([] { get().beforeFork(); }, [] { get().afterFork(false); },
                       [] { get().afterFork(true); });
        return made;
    }();
    static const WriteAtExit writeAtExit;
    return *service;
}

void LogService::write(const LogRecord& record) {
    if (m_hasSink.load(std::memory_order_relaxed)) {
        std::shared_ptr<LogSink> sink;
        {
            LocalLock lock(m_mutex);
            sink = m_sink;
        }
        if (sink) sink->write(record);
    }
    m_appender.append(record);
}

bool LogService::init(const std::string& path) {
    LocalLock lock(m_mutex);
    m_made = true;
    const bool isSet = m_appender.setFile(path);
    publishThreshold();
    return isSet;
}

void LogService::setType(LogAppenderType type) {
    LocalLock lock(m_mutex);
    m_appender.setType(type);
    publishThreshold();
}

void LogService::setThreshold(int severity) {
    LocalLock lock(m_mutex);
    m_threshold = std::clamp<int>(severity, 0, Trace);
    publishThreshold();
}

std::shared_ptr<LogSink> LogService::setSink(std::shared_ptr<LogSink> sink) {
    LocalLock lock(m_mutex);
    m_made = m_made || sink;
    m_sink.swap(sink);
    m_hasSink = m_sink != nullptr;
    publishThreshold();
    return sink;
}

void LogService::publishThreshold() {
    const bool listened = m_made && (m_sink || m_appender.hasDestination());
    g_activeThreshold.store(listened ? m_threshold : 0, std::memory_order_relaxed);
}

std::shared_ptr<VirtualChannelLog> LogService::instance() {
    LocalLock lock(m_mutex);
    if (!m_made) return nullptr;
    return {std::shared_ptr<void>(), this};  // shares nothing: the object lives for ever
}

std::int64_t nowInMilliseconds() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

void LogService::flush() {
    LogRepeats::reportDue(false);
    m_lastFlush = nowInMilliseconds();
    m_appender.flush();
}

void LogService::flushIfAllowed() {
    constexpr std::int64_t kPeriod = 100;
    const std::int64_t last = m_lastFlush;
    if (last == 0 || nowInMilliseconds() - last >= kPeriod) flush();
}

void LogService::beforeFork() {
    LogRepeats::beforeFork();
    m_mutex.lock();
    m_appender.beforeFork();
}

void LogService::afterFork(bool inChild) {
    if (inChild) {
        m_appender.afterForkInChild();
    } else {
        m_appender.afterForkInParent();
    }
    m_mutex.unlock();
    LogRepeats::afterFork(inChild);
}

// The loggers by name, for the life of the process.
struct Loggers {
    LocalMutex mutex;
    std::map<std::string, Logger, std::less<>> byName NORVO_GUARDED_BY(mutex);
};

Loggers& loggers() {
    static auto* const all = new Loggers;
    return *all;
}

}  // namespace

std::optional<int> thresholdIn(std::string_view text) {
    if (text.empty()) return Info;
    const bool valid = text.size() == 1 && text[0] >= '0' && text[0] <= '0' + Trace;
    return valid ? std::optional(text[0] - '0') : std::nullopt;
}

void setThreshold(int severity) { LogService::get().setThreshold(severity); }

std::shared_ptr<LogSink> setSink(std::shared_ptr<LogSink> sink) {
    return LogService::get().setSink(std::move(sink));
}

void scheduleReport(std::chrono::steady_clock::time_point time) {
    LogService::get().scheduleReport(time);
}

void write(int severity, std::string_view source, int line, std::string_view operation,
           std::string_view message) {
    LogService::get().write({severity, "VirtualChannel", source, line, operation, message});
}

}  // namespace KLT::kltlogger

using namespace KLT::kltlogger;

LoggerHandle KLTLogger_getLogger(const char* name) {
    const std::string key = name ? name : "";
    Loggers& all = loggers();
    VDIFrameworkCommon::LocalLock lock(all.mutex);
    return &all.byName.try_emplace(key, key).first->second;
}

const char* KLTLogger_getName(LoggerHandle handle) { return handle ? handle->name().c_str() : ""; }

std::shared_ptr<VirtualChannelLog> VirtualChannelLogger_getInstance() {
    return LogService::get().instance();
}

bool VirtualChannelLogger_init(const std::string& path) { return LogService::get().init(path); }

void VirtualChannelLogger_setAppenderType(LogAppenderType type) { LogService::get().setType(type); }

void VirtualChannelLogger_flush() { LogService::get().flush(); }

void VirtualChannelLogger_flushBufferIfAllowed() { LogService::get().flushIfAllowed(); }
