#include "NamedMutex.h"

#include <algorithm>

#include "CpuRelax.h"
#include "Log.h"
#include "NamedObject.h"

namespace VDIFrameworkCommon {

namespace {

using Identity = ProcessIdentity::Word;
using std::chrono::milliseconds;

constexpr milliseconds kLockLimit{2000};
constexpr std::chrono::seconds kUnknownLimit{10};
constexpr Identity kContended = ProcessIdentity::kUserBit;
constexpr int kSpins = 40;

// How long a waiter sleeps before it checks whether the owner still lives: short at first, for an
// owner that has just died, then longer, for one that is only slow.
constexpr milliseconds kFirstSlice{2};
constexpr milliseconds kLongestSlice{5};

bool replaceOwner(NamedObjectWords& words, Identity from, Identity to) {
    return words.owner.compare_exchange_strong(from, to, std::memory_order_acquire,
                                               std::memory_order_relaxed);
}

bool spinForLock(NamedObjectWords& words, Identity me) {
    for (int i = 0; i < kSpins; ++i) {
        if (words.owner.load(std::memory_order_relaxed) == 0 && replaceOwner(words, 0, me)) {
            return true;
        }
        cpuRelax();
    }
    return false;
}

class Waiter {
public:
    Waiter(NamedObject& object, Identity me, milliseconds limit)
        : m_object(object),
          m_words(object.words()),
          m_me(me | kContended),
          m_deadline(WaitClock::now() + limit) {}

    bool wait() {
        for (;;) {
            const std::uint64_t released = m_words.released.load();
            const Identity owner = m_words.owner.load();
            if (owner == 0 || isAbandoned(owner)) {
                if (take(owner)) return true;
                continue;
            }
            // Before the clock is checked: a leaving waiter may have consumed a wake-up, and the
            // mark ensures that the next release wakes another.
            if (!(owner & kContended) && !replaceOwner(m_words, owner, owner | kContended)) {
                continue;
            }
            if (WaitClock::now() >= m_deadline) {
                // A short limit ends before any close look.
                if (m_lookClosely) return false;
                m_lookClosely = true;
                continue;
            }
            if (!sleep(released)) return false;
        }
    }
    // wait() has ended because the mutex was truncated: do not touch it.
    bool isTruncated() const { return m_isTruncated; }

private:
    bool isAbandoned(Identity owner) const {
        return m_lookClosely ? ProcessIdentity::isGone(owner)
                             : ProcessIdentity::hasNoProcess(owner);
    }

    // Marked as contended, because there may be other waiters.
    bool take(Identity from) {
        if (!replaceOwner(m_words, from, m_me)) return false;
        if (from != 0) {
            NORVO_LOG(Notice, "Took over named mutex ", m_object.name(), " from process ",
                      ProcessIdentity::pid(from), ", which has ended");
        }
        return true;
    }

    bool sleep(std::uint64_t released) {
        const auto until = std::min(WaitClock::now() + m_slice, m_deadline);
        const bool isPresent = waitOnAddress(m_words.released, released, until);
        const auto now = WaitClock::now();
        m_isTruncated = !isPresent && !m_object.isIntact(now);
        m_lookClosely = now >= until;
        if (m_lookClosely) m_slice = std::min<milliseconds>(2 * m_slice, kLongestSlice);
        return !m_isTruncated;
    }

    NamedObject& m_object;
    NamedObjectWords& m_words;
    const Identity m_me;
    const WaitClock::time_point m_deadline;
    milliseconds m_slice = kFirstSlice;
    bool m_lookClosely = false;
    bool m_isTruncated = false;
};

// Frees the lock if `holder` has it.
bool release(NamedObjectWords& words, Identity holder) {
    Identity found = holder;
    if (words.owner.compare_exchange_strong(found, 0)) return true;
    found = holder | kContended;
    if (!words.owner.compare_exchange_strong(found, 0)) return false;
    words.released.fetch_add(1);
    wakeOne(words.released);
    return true;
}

}  // namespace

NamedMutex::NamedMutex() = default;
NamedMutex::~NamedMutex() = default;

bool NamedMutex::create(const char* name) {
    m_object = NamedObject::open(NamedObject::Kind::Mutex, name);
    return m_object != nullptr;
}

bool NamedMutex::lock() { return lockFor(kLockLimit); }

bool NamedMutex::lockFor(milliseconds limit) {
    if (tryLock()) return true;
    if (!m_object) return false;
    const Identity me = ProcessIdentity::own();
    Waiter waiter(*m_object, me, limit);
    if (!waiter.wait() && (waiter.isTruncated() || !takeFromUnknown(me))) return false;
    m_holder.store(me, std::memory_order_relaxed);
    return true;
}

bool NamedMutex::tryLock() {
    if (!m_object) return false;
    NamedObjectWords& words = m_object->words();
    const Identity me = ProcessIdentity::own();
    if (!replaceOwner(words, 0, me) && !spinForLock(words, me)) return false;
    m_holder.store(me, std::memory_order_relaxed);
    return true;
}

bool NamedMutex::owns() const {
    return m_object && m_holder.load(std::memory_order_relaxed) == ProcessIdentity::own();
}

bool NamedMutex::isCurrent() const { return !m_object || m_object->isCurrent(); }

bool NamedMutex::isIntact(WaitClock::time_point now) const {
    return !m_object || m_object->isIntact(now);
}

// The word may also be garbage that somebody wrote.
bool NamedMutex::takeFromUnknown(std::uint64_t me) {
    NamedObjectWords& words = m_object->words();
    Identity found = words.owner.load();
    const Identity owner = found & ~kContended;
    const std::uint64_t released = words.released.load();
    const auto now = WaitClock::now();
    const LocalLock lock(m_unknownMutex);
    if (owner == 0 || ProcessIdentity::isComparable(owner) || owner != m_unknownOwner ||
        released != m_unknownReleased) {
        m_unknownOwner = owner;
        m_unknownReleased = released;
        m_unknownSince = now;
        return false;
    }
    if (now - m_unknownSince < kUnknownLimit) return false;
    m_unknownOwner = 0;
    if (!words.owner.compare_exchange_strong(found, me | kContended)) return false;
    NORVO_LOG(Warning, "Took over named mutex ", m_object->name(),
              " from an owner of another namespace that has kept it for 10 s");
    return true;
}

bool NamedMutex::unlock() {
    if (!m_object) return false;
    NamedObjectWords& words = m_object->words();
    const Identity me = ProcessIdentity::own();
    if (m_holder.load(std::memory_order_relaxed) == me) {
        m_holder.store(0, std::memory_order_relaxed);
        return release(words, me);
    }
    const Identity owner = words.owner.load();
    return owner != 0 && ProcessIdentity::isGone(owner) && release(words, owner & ~kContended);
}

}  // namespace VDIFrameworkCommon
