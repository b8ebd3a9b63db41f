#include "StandIn.h"

#include <algorithm>
#include <array>
#include <utility>

#include "Contained.h"

namespace VDIFrameworkCommon {

// An object can be truncated while nobody looks; its owner knows what to do then.
constexpr std::chrono::milliseconds kPresentFor{1};

// ---- One wait

void LeftWait::giveBack() {
    LocalLock lock(m_mutex);
    m_isBack = true;
    m_changed.notify_all();
}

bool LeftWait::waitUntilReturned(std::chrono::milliseconds limit) {
    const auto deadline = WaitClock::now() + limit;
    LocalLock lock(m_mutex);
    while (!m_isBack && m_changed.wait_until(m_mutex, deadline)) {
    }
    return m_isBack;
}

void LeftWait::takeBack() {
    LocalLock lock(m_mutex);
    m_isBack = true;
    while (m_isServing) m_changed.wait(m_mutex);
}

bool LeftWait::isBack() {
    LocalLock lock(m_mutex);
    return m_isBack;
}

bool LeftWait::serve() {
    {
        LocalLock lock(m_mutex);
        if (m_isBack) return false;
        m_isServing = true;
    }
    bool goesOn = false;
    contained("Serving another thread's wait", [&] { goesOn = m_serve(m_awaited); });
    LocalLock lock(m_mutex);
    m_isServing = false;
    if (!goesOn) m_isBack = true;
    if (m_isBack) m_changed.notify_all();
    return !m_isBack;
}

// ---- All of one thread

// Nothing is allocated later, on a thread that others depend on.
StandIn::StandIn(std::function<void()> wake) : m_wake(std::move(wake)) {
    m_waits.reserve(kMostWaits);
    m_known.reserve(kMostWaits);
}

bool StandIn::accept(const std::shared_ptr<LeftWait>& wait) {
    LocalLock lock(m_mutex);
    if (!m_wake || m_waits.size() >= kMostWaits || !canWaitOnAnyAddress()) return false;
    m_waits.push_back(wait);
    m_count = m_waits.size();
    ++m_changes;
    m_wake();
    return true;
}

void StandIn::giveAllBack() {
    LocalLock lock(m_mutex);
    for (const auto& wait : m_waits) wait->giveBack();
    m_waits.clear();
    m_count = 0;
    ++m_changes;
}

void StandIn::close() {
    {
        LocalLock lock(m_mutex);
        m_wake = nullptr;
    }
    giveAllBack();
}

// Owners that have taken their waits back do not tell.
void StandIn::follow() {
    if (m_changes.load() == m_knownChanges) return;
    LocalLock lock(m_mutex);
    std::erase_if(m_waits, [](const auto& wait) { return wait->isBack(); });
    m_count = m_waits.size();
    m_known = m_waits;
    m_knownChanges = m_changes;
}

void StandIn::forget(const std::shared_ptr<LeftWait>& wait) {
    LocalLock lock(m_mutex);
    std::erase(m_waits, wait);
    m_count = m_waits.size();
    ++m_changes;
}

bool StandIn::isDue() {
    follow();
    return std::any_of(m_known.begin(), m_known.end(),
                       [](const auto& one) { return one->isDue(); });
}

void StandIn::serve() {
    if (!isDue()) return;
    for (const auto& one : m_known) {
        if (one->isDue() && !one->serve()) forget(one);
    }
}

void StandIn::sleep(const AddressWait& own, WaitClock::time_point deadline) {
    follow();
    std::array<AddressWait, kMostWaits + 1> waits{own};
    std::size_t count = 1;
    for (const auto& one : m_known) waits[count++] = one->awaited();
    const bool arePresent = waitOnAnyAddress(std::span(waits).first(count), deadline);
    const auto now = WaitClock::now();
    if (arePresent && now - m_lookedAt < kPresentFor) return;
    m_lookedAt = now;
    for (const auto& one : m_known) {
        if (isPresent(*one->awaited().word)) continue;
        one->giveBack();
        forget(one);
    }
    follow();
}

}  // namespace VDIFrameworkCommon
