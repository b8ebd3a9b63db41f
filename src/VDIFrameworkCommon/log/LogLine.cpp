#include "LogLine.h"

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstring>

#include "Namespace.h"
#include "ThreadId.h"

namespace KLT::kltlogger {

namespace {

struct Ids {
    pid_t process = 0;
    std::uint64_t thread = 0;
};
thread_local Ids t_ids;

const Ids& ids() {
    if (t_ids.process == 0) t_ids = {getpid(), VDIFrameworkCommon::currentThreadId()};
    return t_ids;
}

std::string_view severityName(int severity) {
    static constexpr std::array<std::string_view, 7> kNames{"NONE",   "FATAL", "ERROR", "WARN",
                                                            "NOTICE", "INFO",  "TRACE"};
    return kNames[static_cast<std::size_t>(std::clamp(severity, 0, 6))];
}

bool isControl(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7f;
}

bool hasControl(std::string_view text) {
    bool found = false;
    for (const char c : text) found |= isControl(c);
    return found;
}

void appendEscaped(std::string& out, char c) {
    static constexpr char kHex[] = "0123456789abcdef";
    switch (c) {
        case '\n':
            out += "\\n";
            break;
        case '\r':
            out += "\\r";
            break;
        case '\t':
            out += "\\t";
            break;
        default: {
            const auto byte = static_cast<unsigned char>(c);
            out += {'\\', 'x', kHex[byte >> 4U], kHex[byte & 15U]};
        }
    }
}

char* put(char* at, std::string_view text) {
    std::memcpy(at, text.data(), text.size());
    return at + text.size();
}

char* putDigits(char* at, unsigned value, int width) {
    for (int i = width - 1; i >= 0; --i, value /= 10) at[i] = static_cast<char>('0' + value % 10);
    return at + width;
}

template <class Number>
char* putNumber(char* at, Number value) {
    return std::to_chars(at, at + 20, value).ptr;
}

// "2031-05-06T07:08:09.123456Z"
char* putTime(char* at, std::chrono::system_clock::time_point now) {
    using namespace std::chrono;
    const auto day = floor<days>(now);
    const year_month_day date{day};
    const hh_mm_ss time{floor<microseconds>(now - day)};
    at = putDigits(at, static_cast<unsigned>(static_cast<int>(date.year())), 4);
    *at++ = '-';
    at = putDigits(at, static_cast<unsigned>(date.month()), 2);
    *at++ = '-';
    at = putDigits(at, static_cast<unsigned>(date.day()), 2);
    *at++ = 'T';
    at = putDigits(at, static_cast<unsigned>(time.hours().count()), 2);
    *at++ = ':';
    at = putDigits(at, static_cast<unsigned>(time.minutes().count()), 2);
    *at++ = ':';
    at = putDigits(at, static_cast<unsigned>(time.seconds().count()), 2);
    *at++ = '.';
    at = putDigits(at, static_cast<unsigned>(time.subseconds().count()), 6);
    *at++ = 'Z';
    return at;
}

}  // namespace

LogLine::LogLine(const LogRecord& record)
    : m_parts{head(record),
              printable(record.logger, m_escapedLogger),
              " ",
              printable(record.source, m_escapedSource),
              ":",
              {m_number.data(),
               static_cast<std::size_t>(putNumber(m_number.data(), record.line) - m_number.data())},
              " ",
              printable(record.operation, m_escapedOperation),
              ": ",
              printableMessage(record.message),
              "\n"} {}

std::string_view LogLine::head(const LogRecord& record) {
    const Ids& own = ids();
    char* at = putTime(m_head.data(), std::chrono::system_clock::now());
    *at++ = ' ';
    at = putNumber(at, own.process);
    *at++ = '/';
    at = putNumber(at, own.thread);
    *at++ = ' ';
    if (const std::string& space = VDIFrameworkCommon::sessionNamespace(); !space.empty()) {
        *at++ = '[';
        at = put(at, space);
        at = put(at, "] ");
    }
    at = put(at, severityName(record.severity));
    *at++ = ' ';
    return {m_head.data(), static_cast<std::size_t>(at - m_head.data())};
}

std::string_view LogLine::printable(std::string_view text, std::string& storage) const {
    if (!hasControl(text)) return text;
    storage.reserve(text.size() + 16);
    for (const char c : text) {
        if (isControl(c)) {
            appendEscaped(storage, c);
        } else {
            storage += c;
        }
    }
    return storage;
}

std::string_view LogLine::printableMessage(std::string_view message) {
    if (message.size() <= kMaxMessage) return printable(message, m_escapedMessage);
    const std::string_view kept = printable(message.substr(0, kMaxMessage), m_escapedMessage);
    if (m_escapedMessage.empty()) m_escapedMessage = kept;
    m_escapedMessage += "... (" + std::to_string(message.size() - kMaxMessage) + " bytes more)";
    return m_escapedMessage;
}

std::size_t LogLine::size() const {
    std::size_t total = 0;
    for (const auto part : m_parts) total += part.size();
    return total;
}

void LogLine::appendTo(std::string& out) const {
    for (const auto part : m_parts) out += part;
}

void LogLine::forgetIds() { t_ids = {}; }

}  // namespace KLT::kltlogger
