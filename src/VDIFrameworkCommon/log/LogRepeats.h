#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "KLTLogger.h"
#include "ThreadAnnotations.h"

namespace KLT::kltlogger {

// Sums up one recurring log message: the first is logged in full, later ones are counted, and the
// count is appended to the latest text ("... 10,236 more in 60 s") after 10 s, then at intervals
// that grow to an hour. After a quiet minute it starts over.
//
// Owned by the object concerned (a stream, a connection), or by the process. A pending count is
// logged when it is due, when the object ends, and when the process ends. Thread-safe; used by
// NORVO_LOG_REPEATED.
class LogRepeats {
public:
    using Time = std::chrono::steady_clock::time_point;
    using Now = Time (*)();

    // `now`: for tests.
    explicit LogRepeats(Now now = &std::chrono::steady_clock::now) : m_now(now) {}
    ~LogRepeats();
    LogRepeats(const LogRepeats&) = delete;
    LogRepeats& operator=(const LogRepeats&) = delete;

    // `record` lacks its message; its texts live as long as the process.
    template <class Compose>
    void log(const LogRecord& record, const Compose& compose) noexcept {
        try {
            const Turn turn = begin();
            if (turn.speaks) tell(record, compose(), turn);
        } catch (...) {  // NOLINT(bugprone-empty-catch): as in Log.h
        }
    }

    // The matter is settled: the next message is a first one again.
    void settled() noexcept;

    // Logs the counts that are due, or all. Returns when the next one is due; Time::max() when none
    // is pending.
    static Time reportDue(bool all);

    // For code whose failures belong to no object: an object that is never destroyed.
    static LogRepeats& ofProcess();
    // For tests: whether these sum up (the default), or log each message. Makes them start over.
    static void sumUpOfProcess(bool on);

    // Around fork().
    static void beforeFork() NORVO_NO_THREAD_SAFETY_ANALYSIS;
    static void afterFork(bool inChild) NORVO_NO_THREAD_SAFETY_ANALYSIS;

private:
    struct Turn {
        bool speaks = false;
        std::uint64_t more = 0;
        std::chrono::seconds since{0};
    };
    // A count to log without a new message.
    struct Rest {
        LogRecord record;
        std::string text;
        Turn turn;
    };
    struct Waiting;

    Turn begin();
    Turn takeCount(Time now);
    Rest takeRest(Time now);
    void tell(const LogRecord& record, std::string text, const Turn& turn);
    static void write(const Rest& rest);

    const Now m_now;
    // All below is guarded by the lock of Waiting, which the objects share.
    bool m_logsEach = false;
    bool m_begun = false;
    std::uint64_t m_more = 0;  // not logged yet
    std::chrono::seconds m_distance{0};
    Time m_told;
    Time m_latest;
    LogRecord m_record{};
    std::string m_text;
};

}  // namespace KLT::kltlogger
