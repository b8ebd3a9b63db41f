// Collects the log lines of a test.
#pragma once

#include <algorithm>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "KLTLogger.h"

namespace testsupport {

class LogCapture {
public:
    // Enables all severities up to `threshold` while the capture lives.
    explicit LogCapture(int threshold = KLT::kltlogger::Trace) : m_sink(std::make_shared<Sink>()) {
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
    void clear() {
        std::lock_guard lock(m_sink->mutex);
        m_sink->lines.clear();
    }

private:
    struct Sink : KLT::kltlogger::LogSink {
        void write(const KLT::kltlogger::LogRecord& record) override {
            std::lock_guard lock(mutex);
            lines.emplace_back(record.message);
        }
        std::mutex mutex;
        std::vector<std::string> lines;
    };
    std::shared_ptr<Sink> m_sink;
    std::shared_ptr<KLT::kltlogger::LogSink> m_before;
};

}  // namespace testsupport
