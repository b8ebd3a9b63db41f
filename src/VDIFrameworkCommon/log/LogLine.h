#pragma once

#include <array>
#include <string>
#include <string_view>

#include "KLTLogger.h"

namespace KLT::kltlogger {

// The line of text that a record becomes:
//
//     2031-05-06T07:08:09.123456Z 1234/1240 WARN VirtualChannel src/a/File:42 operation: message
//
// with the time in UTC, then process/thread ID. A session namespace stands in brackets before the
// severity ("[near] WARN"). Control characters are escaped (\n, \r, \t, \x1b), so a record is
// always one line; a message is truncated to kMaxMessage bytes. Holds views of the record's texts:
// use it while they live, on the thread that created it.
class LogLine {
public:
    static constexpr std::size_t kMaxMessage = 32 * 1024;

    explicit LogLine(const LogRecord& record);
    LogLine(const LogLine&) = delete;
    LogLine& operator=(const LogLine&) = delete;

    std::size_t size() const;
    void appendTo(std::string& out) const;

    // For a forked child, whose process and thread IDs are new.
    static void forgetIds();

private:
    std::string_view head(const LogRecord& record);
    std::string_view printable(std::string_view text, std::string& storage) const;
    std::string_view printableMessage(std::string_view message);

    std::array<char, 128> m_head{};
    std::array<char, 24> m_number{};
    std::string m_escapedLogger;
    std::string m_escapedSource;
    std::string m_escapedOperation;
    std::string m_escapedMessage;
    std::array<std::string_view, 11> m_parts;
};

}  // namespace KLT::kltlogger
