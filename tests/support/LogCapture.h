// Collects the log lines of a test.
#pragma once

#include <algorithm>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "LogRepeats.h"

namespace testsupport {

class LogCapture {
public:
    // Enables all severities up to `threshold` while the capture lives. NORVO_LOG_SUMMED_UP logs
    // each line, unless `sumsUp`.
    explicit LogCapture(int threshold = KLT::kltlogger::Trace, bool sumsUp = false)
        : m_sink(std::make_shared<Sink>()) {
        KLT::kltlogger::LogRepeats::sumUpOfProcess(sumsUp);
        m_before = KLT::kltlogger::setSink(m_sink);
        KLT::kltlogger::setThreshold(threshold);
    }
    ~LogCapture() {
        KLT::kltlogger::setSink(m_before);
        KLT::kltlogger::setThreshold(KLT::kltlogger::Info);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<std::string> lines() const {
        std::lock_guard lock(m_sink->mutex);
        return m_sink->lines;
    }
    // How many lines contain `text`.
    int count(const std::string& text) const {
        const auto all = lines();
        return static_cast<int>(std::count_if(all.begin(), all.end(), [&](const auto& line) {
            return line.find(text) != std::string::npos;
        }));
    }
    bool contains(const std::string& text) const { return count(text) > 0; }
    // The source file that the first line with `text` names.
    std::string sourceOf(const std::string& text) const {
        std::lock_guard lock(m_sink->mutex);
        for (std::size_t i = 0; i < m_sink->lines.size(); ++i)
            if (m_sink->lines[i].find(text) != std::string::npos) return m_sink->sources[i];
        return "no such line";
    }
    void clear() {
        std::lock_guard lock(m_sink->mutex);
        m_sink->lines.clear();
        m_sink->sources.clear();
    }

private:
    struct Sink : KLT::kltlogger::LogSink {
        void write(const KLT::kltlogger::LogRecord& record) override {
            std::lock_guard lock(mutex);
            lines.emplace_back(record.message);
            sources.emplace_back(record.source);
        }
        std::mutex mutex;
        std::vector<std::string> lines;
        std::vector<std::string> sources;
    };
    std::shared_ptr<Sink> m_sink;
    std::shared_ptr<KLT::kltlogger::LogSink> m_before;
};

}  // namespace testsupport
