#include "NamedCondition.h"

#include <algorithm>

#include "CpuRelax.h"
#include "CurrentCpu.h"
#include "Log.h"
#include "NamedMutex.h"
#include "NamedObject.h"

namespace VDIFrameworkCommon {

namespace {

using Identity = ProcessIdentity::Word;

// A notifier may be killed between counting and waking; a sleeper notices after this time.
constexpr std::chrono::milliseconds kSlice{1000};
constexpr int kLooksPerClockRead = 8;
constexpr std::uint32_t kMostCpus = 1U << 20U;

bool isLivingOther(Identity notifier) {
    return notifier != 0 && notifier != ProcessIdentity::own() &&
           !ProcessIdentity::isGone(notifier);
}

// Whether another living process has notified. A living one is remembered over any number of later
// ones that have ended.
bool livingOtherHasNotified(NamedObjectWords& words) {
    Identity last = words.notifier.load();
    if (isLivingOther(last)) return true;
    const Identity earlier = words.earlierNotifier.load();
    if (!isLivingOther(earlier)) return false;
    if (last != ProcessIdentity::own()) words.notifier.compare_exchange_strong(last, earlier);
    return true;
}

void rememberNotifier(NamedObjectWords& words) {
    const Identity me = ProcessIdentity::own();
    if (words.notifier.load(std::memory_order_relaxed) != me) {
        const Identity last = words.notifier.exchange(me);
        if (last != me && last != 0) words.earlierNotifier.store(last);
    }
    const auto cpu = static_cast<std::uint32_t>(currentCpu() + 1);
    if (words.notifierCpu.load(std::memory_order_relaxed) != cpu) {
        words.notifierCpu.store(cpu, std::memory_order_relaxed);
    }
}

std::int64_t nanosecondsNow() {
    return std::chrono::nanoseconds(WaitClock::now().time_since_epoch()).count();
}

// The word may hold anything: an invalid time counts as 0.
AdaptiveSpin::Duration sinceWoken(std::int64_t wokenAt, WaitClock::time_point now) {
    const auto sinceEpoch = std::chrono::nanoseconds(now.time_since_epoch()).count();
    if (wokenAt < 0 || wokenAt > sinceEpoch) return AdaptiveSpin::Duration::zero();
    return std::chrono::nanoseconds(sinceEpoch - wokenAt);
}

void raise(std::atomic<std::uint64_t>& word, std::uint64_t value) {
    std::uint64_t found = word.load();
    while (found < value && !word.compare_exchange_weak(found, value)) {
    }
}

// False when `deadline` passed first, or when the object was truncated.
bool parkPast(NamedObject& object, std::uint64_t seen, WaitClock::time_point deadline) {
    NamedObjectWords& words = object.words();
    while (words.sequence.load() == seen) {
        const auto now = WaitClock::now();
        if (now >= deadline) return false;
        raise(words.parkedAt, seen);
        const bool isPresent =
            waitOnAddress(words.sequence, seen, std::min(deadline, now + kSlice));
        if (!isPresent && !object.isIntact(WaitClock::now())) return false;
    }
    return true;
}

}  // namespace

NamedCondition::NamedCondition() = default;

NamedCondition::~NamedCondition() {
    if (m_hasNotified) --m_object->notifyingHandles;
}

bool NamedCondition::create(const char* name) {
    auto object = NamedObject::open(NamedObject::Kind::Condition, name);
    if (!object) return false;
    if (m_hasNotified.exchange(false)) --m_object->notifyingHandles;
    m_object = std::move(object);
    NamedObjectWords& words = m_object->words();
    const std::uint64_t sequence = words.sequence.load();
    const bool counts = m_object->notifyingHandles > 0 || livingOtherHasNotified(words);
    m_seen = counts ? sequence - 1 : sequence;
    return true;
}

bool NamedCondition::isCurrent() const { return !m_object || m_object->isCurrent(); }

bool NamedCondition::isIntact(WaitClock::time_point now) const {
    return !m_object || m_object->isIntact(now);
}

std::uint64_t NamedCondition::count() const {
    return m_object ? m_object->words().sequence.load() : 0;
}

bool NamedCondition::timed_wait(NamedMutex& mutex, unsigned int milliseconds,
                                std::chrono::milliseconds relock) {
    if (!m_object) return false;
    NamedObjectWords& words = m_object->words();
    const std::uint64_t seen = words.sequence.load();
    if (m_seen.exchange(seen, std::memory_order_relaxed) != seen) {
        rememberPeer();
        return true;
    }
    mutex.unlock();
    const Passed passed = waitPast(seen, milliseconds);
    if (passed != Passed::No) {
        // Before the mutex is locked again: what is notified after this still counts.
        m_seen.store(words.sequence.load(), std::memory_order_relaxed);
        rememberPeer();
    }
    if (passed != Passed::Spinning && !mutex.isIntact(WaitClock::now())) return false;
    if (mutex.lockFor(relock)) return passed != Passed::No;
    NORVO_LOG(Warning, "Mutex not free again after a wait on condition ", m_object->name());
    return false;
}

NamedCondition::Passed NamedCondition::waitPast(std::uint64_t seen, unsigned int milliseconds) {
    const NamedObjectWords& words = m_object->words();
    const auto start = WaitClock::now();
    if (spinPast(seen, start)) {
        m_spin.notified(AdaptiveSpin::Duration::zero(), AdaptiveSpin::Duration::zero());
        return Passed::Spinning;
    }
    if (!parkPast(*m_object, seen, start + std::chrono::milliseconds(milliseconds))) {
        m_spin.timedOut();
        return Passed::No;
    }
    const auto end = WaitClock::now();
    const auto wokenAt = words.wokenAt.load(std::memory_order_relaxed);
    m_spin.notified(end - start, sinceWoken(wokenAt, end));
    return Passed::Sleeping;
}

bool NamedCondition::spinPast(std::uint64_t seen, WaitClock::time_point start) const {
    const NamedObjectWords& words = m_object->words();
    const auto budget = m_spin.budget(m_peerCpu.load(std::memory_order_relaxed), currentCpu());
    if (budget == AdaptiveSpin::Duration::zero()) return false;
    const auto end = start + budget;
    do {
        for (int i = 0; i < kLooksPerClockRead; ++i) {
            if (words.sequence.load(std::memory_order_acquire) != seen) return true;
            cpuRelax();
        }
    } while (WaitClock::now() < end);
    return false;
}

// The processor of the last notifier, at a moment when that was another handle. The word may hold
// anything.
void NamedCondition::rememberPeer() {
    const auto cpu = m_object->words().notifierCpu.load(std::memory_order_relaxed);
    const bool isKnown = cpu > 0 && cpu <= kMostCpus;
    m_peerCpu.store(isKnown ? static_cast<int>(cpu) - 1 : -1, std::memory_order_relaxed);
}

std::optional<Awaited> NamedCondition::beginWait() {
    if (!m_object) return std::nullopt;
    NamedObjectWords& words = m_object->words();
    const std::uint64_t seen = m_seen.load();
    raise(words.parkedAt, seen);
    if (words.sequence.load() != seen) return std::nullopt;
    return Awaited{{&words.sequence, seen}, m_object};
}

void NamedCondition::notify() {
    if (!m_object) return;
    if (!m_hasNotified.load(std::memory_order_relaxed) && !m_hasNotified.exchange(true)) {
        ++m_object->notifyingHandles;
    }
    NamedObjectWords& words = m_object->words();
    rememberNotifier(words);
    // First, so that a concurrent wait on this handle may end spuriously but never misses another
    // handle's notification.
    m_seen.fetch_add(1, std::memory_order_relaxed);
    const std::uint64_t before = words.sequence.fetch_add(1);
    if (words.parkedAt.load() < before) return;
    words.wokenAt.store(nanosecondsNow(), std::memory_order_relaxed);
    wakeAll(words.sequence);
}

}  // namespace VDIFrameworkCommon
