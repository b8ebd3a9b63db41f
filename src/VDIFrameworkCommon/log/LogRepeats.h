#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "KLTLogger.h"
#include "ThreadAnnotations.h"

namespace KLT::kltlogger {

// Sums up one matter that is logged again and again: the first time in full, the next ones are
// counted, and the count is told behind the text of the latest ("... 10,236 more in 60 s") after
// 10 s, then after distances that grow to an hour. After a quiet minute it begins anew.
//
// Held by whoever the matter belongs to (a stream, a connection). A count that waits is told when
// its time has come, when the object ends, and when the process ends. Thread-safe; used by
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

    // `record` without its message, with texts that live as long as the process.
    template <class Compose>
    void log(const LogRecord& record, const Compose& compose) {
        const Turn turn = begin();
        if (turn.speaks) tell(record, compose(), turn);
    }

    // The matter is settled: what comes next is a first time again.
    void settled();

    // Tells the counts whose time has come, or all. Returns when the next one comes; Time::max()
    // when none waits.
    static Time tellDue(bool all);

    // Around fork().
    static void beforeFork() NORVO_NO_THREAD_SAFETY_ANALYSIS;
    static void afterFork(bool inChild) NORVO_NO_THREAD_SAFETY_ANALYSIS;

private:
    struct Turn {
        bool speaks = false;
        std::uint64_t more = 0;
        std::chrono::seconds since{0};
    };
    // What is told when no occurrence tells it.
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
    bool m_begun = false;
    std::uint64_t m_more = 0;  // not told
    std::chrono::seconds m_distance{0};
    Time m_told;
    Time m_latest;
    LogRecord m_record{};
    std::string m_text;
};

}  // namespace KLT::kltlogger
