#include "LogRepeats.h"

#include <algorithm>
#include <cstddef>
#include <memory>
#include <set>
#include <utility>
#include <vector>

#include "LocalMutex.h"
#include "Log.h"

namespace KLT::kltlogger {

using VDIFrameworkCommon::LocalLock;
using VDIFrameworkCommon::LocalMutex;

namespace {

constexpr std::chrono::seconds kFirstDistance{10};
constexpr std::chrono::seconds kLargestDistance{3600};
constexpr std::chrono::seconds kQuiet{60};

// "10,236"
std::string grouped(std::uint64_t number) {
    std::string digits = std::to_string(number);
    for (auto at = digits.size(); at > 3; at -= 3) digits.insert(at - 3, 1, ',');
    return digits;
}

}  // namespace

// All objects share one lock. Never destroyed: objects may live until the process ends.
struct LogRepeats::Waiting {
    static Waiting& get() noexcept {
        alignas(Waiting) static std::byte place[sizeof(Waiting)];  // there whatever memory is left
        static auto* const instance = std::construct_at(reinterpret_cast<Waiting*>(place));
        return *instance;
    }
    LocalMutex mutex;
    std::set<LogRepeats*> objects NORVO_GUARDED_BY(mutex);  // those with a pending count
    std::vector<std::unique_ptr<LogRepeats>> ofProcess NORVO_GUARDED_BY(mutex);
    bool sumsUpOfProcess NORVO_GUARDED_BY(mutex) = true;
};

LogRepeats::~LogRepeats() { settled(); }

LogRepeats::Turn LogRepeats::takeCount(Time now) {
    const Turn turn{true, m_more, std::chrono::round<std::chrono::seconds>(now - m_told)};
    m_more = 0;
    m_told = now;
    m_distance = std::min(m_distance * 6, kLargestDistance);
    return turn;
}

LogRepeats::Rest LogRepeats::takeRest(Time now) { return {m_record, m_text, takeCount(now)}; }

LogRepeats::Turn LogRepeats::begin() {
    Waiting& waiting = Waiting::get();
    const Time now = m_now();
    LocalLock lock(waiting.mutex);
    if (m_logsEach) return {true, 0, {}};
    const bool anew = !m_begun || now - m_latest >= kQuiet;
    m_begun = true;
    m_latest = now;
    if (!anew) ++m_more;
    if (anew || now - m_told >= m_distance) {
        const Turn turn = takeCount(now);
        if (anew) m_distance = kFirstDistance;
        waiting.objects.erase(this);
        return turn;
    }
    const bool first = waiting.objects.insert(this).second;
    const Time due = m_told + m_distance;
    lock.unlock();
    if (first) scheduleReport(due);
    return {};
}

void LogRepeats::tell(const LogRecord& record, std::string text, const Turn& turn) {
    {
        LocalLock lock(Waiting::get().mutex);
        m_record = record;
        m_text = text;
    }
    write({record, std::move(text), turn});
}

void LogRepeats::write(const Rest& rest) {
    const LogRecord& record = rest.record;
    std::string text = rest.text;
    if (rest.turn.more > 0) {
        text += " ... " + grouped(rest.turn.more) + " more in " +
                std::to_string(rest.turn.since.count()) + " s";
    }
    KLT::kltlogger::write(record.severity, record.source, record.line, record.operation, text);
}

void LogRepeats::settled() noexcept {
    try {
        Waiting& waiting = Waiting::get();
        LocalLock lock(waiting.mutex);
        m_begun = false;
        if (waiting.objects.erase(this) == 0) return;
        const Rest rest = takeRest(m_now());
        lock.unlock();
        write(rest);
    } catch (...) {  // NOLINT(bugprone-empty-catch): as in Log.h
    }
}

LogRepeats::Time LogRepeats::reportDue(bool all) {
    Waiting& waiting = Waiting::get();
    std::vector<Rest> due;
    Time next = Time::max();
    LocalLock lock(waiting.mutex);
    std::erase_if(waiting.objects, [&](LogRepeats* object) {
        const Time now = object->m_now();
        const bool isDue = all || now - object->m_told >= object->m_distance;
        if (isDue) due.push_back(object->takeRest(now));
        if (!isDue) next = std::min(next, object->m_told + object->m_distance);
        return isDue;
    });
    lock.unlock();
    for (const Rest& rest : due) write(rest);
    return next;
}

LogRepeats& LogRepeats::ofProcess() {
    Waiting& waiting = Waiting::get();
    auto made = std::make_unique<LogRepeats>();
    const LocalLock lock(waiting.mutex);
    made->m_logsEach = !waiting.sumsUpOfProcess;
    return *waiting.ofProcess.emplace_back(std::move(made));
}

void LogRepeats::sumUpOfProcess(bool on) {
    Waiting& waiting = Waiting::get();
    const LocalLock lock(waiting.mutex);
    waiting.sumsUpOfProcess = on;
    for (const auto& object : waiting.ofProcess) {
        waiting.objects.erase(object.get());
        object->m_logsEach = !on;
        object->m_begun = false;
        object->m_more = 0;
    }
}

void LogRepeats::beforeFork() { Waiting::get().mutex.lock(); }

// Earlier counts are the parent's to log.
void LogRepeats::afterFork(bool inChild) {
    Waiting& waiting = Waiting::get();
    if (inChild) {
        for (LogRepeats* const object : waiting.objects) object->m_more = 0;
        waiting.objects.clear();
    }
    waiting.mutex.unlock();
}

}  // namespace KLT::kltlogger
