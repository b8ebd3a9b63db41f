#include "SegmentSlot.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <thread>

#include "Contained.h"
#include "Log.h"
#include "SegmentUse.h"

namespace shared_memory {

using std::chrono::milliseconds;

namespace {

constexpr std::chrono::microseconds kLookIsFresh{50};
// Under steady traffic a message must not pay for a look at the four objects beside the memory.
constexpr std::chrono::microseconds kSteadyLookIsFresh{1000};
constexpr milliseconds kNamesAreFresh{200};
constexpr milliseconds kShortestMutexWait{20};
constexpr milliseconds kLostPause{20};

bool isFresh(Clock::time_point look, Clock::time_point now,
             std::chrono::microseconds longest = kLookIsFresh) {
    return now - look < longest && now >= look;
}

// Wraps: the IDs in a segment may have any value.
long distance(long from, long to) {
    return static_cast<long>(static_cast<unsigned long>(to) - static_cast<unsigned long>(from));
}

}  // namespace

bool SegmentSlot::open(const std::string& name, unsigned int capacity, bool create, SlotEnd& end,
                       Claim claim) {
    m_error = {OpenFailure::SystemError, 0, 0, -1};
    if (isMapped()) {
        NORVO_LOG(Error, "Shared Memory already initialized. SM: ", name);
        return false;
    }
    m_end = &end;
    m_claim = claim;
    const bool isOpen = withMemory([&] {
        m_name = name;
        return openAll(capacity, create, false);
    });
    if (!isOpen) return false;
    m_gate.resume();
    m_gate.open();
    return true;
}

// The result of `step`, or false when memory ran out in it: what it opened is closed again.
template <class Step>
bool SegmentSlot::withMemory(const Step& step) {
    try {
        return step();
    } catch (const std::bad_alloc&) {
        m_error = openErrorFor(ENOMEM);
    }
    m_registry.close();
    if (isMapped()) m_mapping.close();
    VDIFrameworkCommon::reportFailure("Opening a shared memory", "no memory");
    return false;
}

// A process that removes a segment holds its mutex meanwhile, and removes the mutex with it.
bool SegmentSlot::openAll(unsigned int capacity, bool create, bool isRenewed) {
    for (int attempt = 0; attempt < 3; ++attempt) {
        if (!createObjects()) return false;
        const Section section(*this);
        if (!section) return false;
        if (m_mutex.isCurrent()) return start(capacity, create, isRenewed);
    }
    return false;
}

// Notified with the mutex held, so that a waiting writer writes nothing that a starting reader
// would drop; notified again once the reader has started.
bool SegmentSlot::start(unsigned int capacity, bool create, bool isRenewed) {
    if (!isRenewed && !mayStart()) return false;
    notify(Signal::Taken);
    const bool isOpen = m_mapping.open(m_name, capacity, create);
    m_error = m_mapping.error();
    if (!isOpen) return false;
    m_capacity = capacity;
    m_restIsClear = false;
    m_lastLook = Clock::now();
    m_registry.open(SegmentMapping::prefixed(m_name));
    forgetGone();
    m_registry.enter(m_end->role());
    logLockTaken();
    m_end->begin(isRenewed);
    if (m_end->role() == SegmentRegistry::Role::Reader) notify(Signal::Taken);
    return true;
}

// With the mutex held until this end is registered, so that only one of several gets past.
bool SegmentSlot::mayStart() {
    if (m_claim == Claim::Shared || processOfEnd(m_name, m_end->role()) == 0) return true;
    m_error.failure = OpenFailure::InUse;
    NORVO_LOG(Error, "Another end of the same role is in use: ", m_name);
    return false;
}

bool SegmentSlot::createObjects() {
    const std::string object = kSegmentObjectPrefix + m_name;
    if (!m_mutex.create(object.c_str())) {
        m_error = openErrorFor(errno);
        NORVO_LOG(Error, "CreateMutex for shared memory start failed, stream: ", m_name);
        return false;
    }
    NORVO_LOG(Info, "CreateMutex for shared memory start ",
              m_end->role() == SegmentRegistry::Role::Writer ? "succeed" : "Suceded",
              ", stream: ", m_name);
    // Frees it if its owner has died.
    m_mutex.unlock();
    if (!m_readCondition.create((object + kReadConditionSuffix).c_str())) {
        m_error = openErrorFor(errno);
        NORVO_LOG(Error,
                  "Create condition for reading shared memory start failed, stream: ", m_name);
        return false;
    }
    NORVO_LOG(Info, "Create condition for reading shared memory start succeed, stream: ", m_name);
    if (!m_writeCondition.create((object + kWriteConditionSuffix).c_str())) {
        m_error = openErrorFor(errno);
        NORVO_LOG(Error,
                  "Create condition for writing to  shared memory start failed, stream: ", m_name);
        return false;
    }
    NORVO_LOG(Info, "Create condition for writing shared memory start succeed, stream: ", m_name);
    m_gate.attach(object + kReadConditionSuffix, object + kWriteConditionSuffix);
    return true;
}

bool SegmentSlot::close() {
    if (!isMapped()) return true;
    {
        const Section section(*this);
        if (section) m_end->leave();
        m_registry.close();
    }
    const bool closed = m_mapping.close();
    if (closed) NORVO_LOG(Info, "Shared Memory closed.", m_name);
    return closed;
}

SegmentSlot::Soundness SegmentSlot::check(Clock::time_point now) {
    if (!isMapped()) return renew();
    const bool areCurrent = !m_isSilent || areObjectsCurrent(now);
    if (areCurrent && isFresh(m_lastLook, now)) return Soundness::Sound;
    switch (look(now)) {
        case Look::Cut:
            logLost("Shared memory was cut by another process");
            return renew();
        case Look::Removed:
            logLost("Shared memory was removed from the system");
            return renew();
        case Look::ObjectsCut:
            logLost("What synchronises a shared memory was cut by another process");
            return renewObjects();
        case Look::Sound:
            break;
    }
    if (areCurrent) return Soundness::Sound;
    logLost("What synchronises a shared memory was removed from the system");
    return renewObjects();
}

bool SegmentSlot::isTruncated(Clock::time_point now) {
    if (!isMapped() || isFresh(m_lastLook, now)) return false;
    const Look found = look(now);
    return found == Look::Cut || found == Look::ObjectsCut;
}

// A look that finds the object lost is not cached: the next check() must find it again.
SegmentSlot::Look SegmentSlot::look(Clock::time_point now) {
    Look found = areObjectsWhole(now) ? Look::Sound : Look::ObjectsCut;
    const auto state = m_mapping.look();
    if (state == SegmentMapping::State::Shrunk) found = Look::Cut;
    if (state == SegmentMapping::State::Removed) found = Look::Removed;
    m_lastLook = found == Look::Sound ? now : Clock::time_point{};
    return found;
}

bool SegmentSlot::areObjectsWhole(Clock::time_point now) {
    if (isFresh(m_objectsIntactAt, now, m_isSilent ? kLookIsFresh : kSteadyLookIsFresh))
        return true;
    const bool areIntact = m_mutex.isIntact(now) && m_readCondition.isIntact(now) &&
                           m_writeCondition.isIntact(now) && m_registry.isIntact(now);
    m_objectsIntactAt = areIntact ? now : Clock::time_point{};
    return areIntact;
}

// Those who opened them since notify others than these.
bool SegmentSlot::areObjectsCurrent(Clock::time_point now) {
    if (isFresh(m_namesAskedAt, now, kNamesAreFresh)) return true;
    m_namesAskedAt = now;
    return m_mutex.isCurrent() && m_readCondition.isCurrent() && m_writeCondition.isCurrent() &&
           m_registry.isCurrent();
}

void SegmentSlot::logLost(const char* what) { NORVO_LOG(Warning, what, ", made anew: ", m_name); }

SegmentSlot::Soundness SegmentSlot::renew() {
    m_registry.close();
    if (isMapped()) m_mapping.close();
    if (withMemory([&] { return openAll(m_capacity, true, true); })) return Soundness::Renewed;
    std::this_thread::sleep_for(kLostPause);
    return Soundness::Lost;
}

SegmentSlot::Soundness SegmentSlot::renewObjects() {
    return withMemory([&] { return reopenObjects(); }) ? Soundness::Sound : renew();
}

bool SegmentSlot::reopenObjects() {
    for (int attempt = 0; attempt < 3; ++attempt) {
        if (!createObjects()) return false;
        m_registry.open(SegmentMapping::prefixed(m_name));
        const Section section(*this);
        if (!section) return false;
        if (!m_mutex.isCurrent()) continue;
        m_registry.enter(m_end->role());
        m_end->reenter();
        return true;
    }
    return false;
}

SegmentSlot::Section::Section(SegmentSlot& slot, milliseconds limit, Clock::time_point now)
    : m_slot(slot) {
    if (slot.isTruncated(now)) return;
    m_isHeld = slot.m_mutex.tryLock();
    if (!m_isHeld && limit == milliseconds::zero()) return;
    const bool owns = m_isHeld || slot.m_mutex.lockFor(limit);
    if (!owns && !slot.m_isMutexLate) {
        NORVO_LOG(Error, "Error: Locking named mutex timedout, stream: ", slot.m_name);
    }
    slot.m_isMutexLate = !owns;
    if (!m_isHeld) m_isHeld = owns && !slot.isTruncated();
}

milliseconds SegmentSlot::mutexWait(Clock::time_point now, Clock::time_point deadline) {
    const auto left = std::min<Clock::duration>(deadline - now, Section::kLongestWait);
    return std::max(std::chrono::ceil<milliseconds>(left), kShortestMutexWait);
}

SegmentSlot::Waited SegmentSlot::waitOnce(Signal signal, Clock::time_point now,
                                          Clock::time_point until, milliseconds longest,
                                          milliseconds relock) {
    const auto left = std::min<Clock::duration>(until - now, longest);
    const auto wait = std::max<milliseconds::rep>(0, std::chrono::ceil<milliseconds>(left).count());
    const bool notified =
        condition(signal).timed_wait(m_mutex, static_cast<unsigned int>(wait), relock);
    m_isSilent = !notified;
    if (!m_mutex.owns()) return Waited::Ended;
    return notified ? Waited::Notified : Waited::TimedOut;
}

void SegmentSlot::pause(Signal signal, unsigned int longest) {
    const Section section(*this);
    if (section && m_gate.isPassable())
        m_isSilent = !condition(signal).timed_wait(m_mutex, longest);
}

bool SegmentSlot::isFree() { return header().newMessageId == header().readMessageId; }

bool SegmentSlot::isUnread() {
    const long newId = header().newMessageId;
    const long ahead = distance(header().readMessageId, newId);
    if (ahead < 0) {
        // Neither readable nor writable: only a misbehaving process leaves this behind.
        NORVO_LOG_REPEATED(m_backwards, Warning, "Message IDs went backwards, stream: ", m_name);
        header().readMessageId = newId;
        notify(Signal::Taken);
    }
    if (ahead <= 0) return false;
    m_unreadId = newId;
    m_unreadGeneration = generation();
    return true;
}

bool SegmentSlot::place(const ChunkHeader& chunk, const char* bytes) {
    fill(chunk, bytes);
    return publish(Section::kLongestWait);
}

bool SegmentSlot::tryPlace(const ChunkHeader& chunk, const char* bytes) {
    if (!isFreeAtOnce() || dirtyBehind(chunk.length) > kMostClearedAtOnce) return false;
    fill(chunk, bytes);
    return publish(milliseconds::zero());
}

bool SegmentSlot::publish(milliseconds limit) {
    {
        const Section section(*this, limit);
        if (!section) return false;
        header().newMessageId.fetch_add(1);
    }
    notify(Signal::Written);
    return true;
}

// Recovering a lost object is left to a call that may wait.
bool SegmentSlot::isSoundAtOnce(Clock::time_point now) {
    return isMapped() && (isFresh(m_lastLook, now) || look(now) == Look::Sound);
}

bool SegmentSlot::isFreeAtOnce() {
    const auto now = Clock::now();
    if (!isSoundAtOnce(now)) return false;
    if (!m_writeCondition.isNotified()) return false;
    const Section section(*this, milliseconds::zero(), now);
    return section && isFree();
}

bool SegmentSlot::isUnreadAtOnce() {
    const auto now = Clock::now();
    if (!isSoundAtOnce(now)) return false;
    m_readCondition.endWait();
    m_isSilent = false;
    const Section section(*this, milliseconds::zero(), now);
    return section && isUnread();
}

// A reader finds zeros behind the chunk, as if the whole area had been cleared. The previous
// chunk's bytes are cleared before its length is replaced, so a writer that dies in between leaves
// a length that still covers the rest.
void SegmentSlot::fill(const ChunkHeader& chunk, const char* bytes) {
    std::memset(data() + chunk.length, 0, dirtyBehind(chunk.length));
    m_restIsClear = true;
    chunk.store(header());
    std::memcpy(data(), bytes, chunk.length);
}

// Bytes of the data area behind `length` that may not be zero.
unsigned int SegmentSlot::dirtyBehind(unsigned int length) {
    const unsigned int before = header().chunkLength.load(std::memory_order_relaxed);
    const unsigned int dirty =
        m_restIsClear ? std::min(before, mappedCapacity()) : mappedCapacity();
    return dirty > length ? dirty - length : 0;
}

bool SegmentSlot::take(milliseconds limit) {
    bool isSame = false;
    {
        const Section section(*this, limit);
        if (!section) return false;
        logLockTaken();
        isSame = header().newMessageId == m_unreadId && generation() == m_unreadGeneration;
        if (isSame) header().readMessageId = m_unreadId;
    }
    notify(Signal::Taken);
    return isSame;
}

void SegmentSlot::logLockTaken() {
    NORVO_LOG(Trace,
              "Lock on named mutex has happened, someone has read the shared memory, so we can "
              "write, stream: ",
              m_name);
}

}  // namespace shared_memory
