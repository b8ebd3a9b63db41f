// How code logs:
//
//     NORVO_LOG(Error, "mmap failure, failed to map shared memory: ", name);
//
// The parts are texts, characters, numbers, bools (written 0 or 1) and pointers, concatenated
// without separators. When the severity is off, the parts are not evaluated: the line costs one
// relaxed load and a branch. The record names the line's source file ("src/.../File"). What a line
// tells about goes on whatever becomes of it: one that there is no memory for is lost.
//
// Recurring events are summed up, see LogRepeats.h:
//
//     NORVO_LOG_REPEATED(m_dropped, Error, "Sending buffer full, stream name: ", name);
//
// NORVO_LOG_SUMMED_UP is for code without an object to own the sum: one per line of code.
#pragma once

#include <charconv>
#include <string>
#include <string_view>
#include <type_traits>

#include "KLTLogger.h"
#include "LogRepeats.h"

namespace KLT::kltlogger {

inline void appendPart(std::string& out, std::string_view part) { out += part; }
inline void appendPart(std::string& out, const char* part) { out += part ? part : "(null)"; }
inline void appendPart(std::string& out, char part) { out += part; }

template <class Number>
requires std::is_arithmetic_v<Number> || std::is_enum_v<Number>
void appendPart(std::string& out, Number part) {
    char digits[64];
    if constexpr (std::is_same_v<Number, bool>) {
        out += part ? '1' : '0';
    } else if constexpr (std::is_enum_v<Number>) {
        appendPart(out, static_cast<std::underlying_type_t<Number>>(part));
    } else {
        const auto end = std::to_chars(digits, digits + sizeof digits, part).ptr;
        out.append(digits, end);
    }
}

inline void appendPart(std::string& out, const void* part) {
    char digits[20];
    const auto end =
        std::to_chars(digits, digits + sizeof digits, reinterpret_cast<std::uintptr_t>(part), 16)
            .ptr;
    out += "0x";
    out.append(digits, end);
}

template <class... Parts>
std::string compose(const Parts&... parts) {
    std::string text;
    (appendPart(text, parts), ...);
    return text;
}

// Passes one record to the logging object under the logger name "VirtualChannel".
void write(int severity, std::string_view source, int line, std::string_view operation,
           std::string_view message);

template <class... Parts>
void writeLine(int severity, std::string_view source, int line, std::string_view operation,
               const Parts&... parts) noexcept {
    try {
        write(severity, source, line, operation, compose(parts...));
    } catch (...) {  // NOLINT(bugprone-empty-catch): there is no other place to tell it
    }
}

}  // namespace KLT::kltlogger

// The build defines it for each source of a layer.
#ifndef NORVO_SOURCE
#define NORVO_SOURCE __FILE__
#endif

#define NORVO_LOG_AT(severity, ...)                                                               \
    do {                                                                                          \
        if (::KLT::kltlogger::isEnabled(severity)) {                                              \
            ::KLT::kltlogger::writeLine(severity, NORVO_SOURCE, __LINE__, __func__, __VA_ARGS__); \
        }                                                                                         \
    } while (false)

#define NORVO_LOG(severity, ...) NORVO_LOG_AT(::KLT::kltlogger::severity, __VA_ARGS__)

#define NORVO_LOG_REPEATED(repeats, severity, ...)                                 \
    do {                                                                           \
        if (::KLT::kltlogger::isEnabled(::KLT::kltlogger::severity)) {             \
            (repeats).log({::KLT::kltlogger::severity,                             \
                           "VirtualChannel",                                       \
                           NORVO_SOURCE,                                           \
                           __LINE__,                                               \
                           __func__,                                               \
                           {}},                                                    \
                          [&] { return ::KLT::kltlogger::compose(__VA_ARGS__); }); \
        }                                                                          \
    } while (false)

#define NORVO_LOG_SUMMED_UP(severity, ...)                                                   \
    NORVO_LOG_REPEATED(([]() -> ::KLT::kltlogger::LogRepeats& {                              \
                           static auto& repeats = ::KLT::kltlogger::LogRepeats::ofProcess(); \
                           return repeats;                                                   \
                       }()),                                                                 \
                       severity, __VA_ARGS__)
