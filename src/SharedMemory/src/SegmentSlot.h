#pragma once

#include <chrono>
#include <string>
#include <type_traits>

#include "LogRepeats.h"
#include "NamedCondition.h"
#include "NamedMutex.h"
#include "SegmentMapping.h"
#include "SegmentRegistry.h"
#include "SlotGate.h"

namespace shared_memory {

using Clock = std::chrono::steady_clock;

// What an end of a segment does with the slot when it starts and leaves.
class SlotEnd {
public:
    virtual ~SlotEnd() = default;
    virtual SegmentRegistry::Role role() const = 0;
    // Called with the segment's mutex held. `isRenewed`: another process removed or truncated the
    // object; it was recreated, and this end continues in it.
    virtual void begin(bool isRenewed) = 0;
    // Called with the segment's mutex held, before the mapping ends.
    virtual void leave() {}
    // Reverts what another end, whose process is gone, has left in the segment. Called with the
    // mutex held.
    virtual void forget(const RegistryEntry& /*gone*/) {}
    // The same when the registry was made anew while the segment goes on: this end has a new entry.
    virtual void reenter() {}
};

// The one slot of a segment.
//
// It holds an unread chunk while the new message ID is greater than the read message ID and is free
// while they are equal. The segment's named mutex guards the two IDs; chunk header and data are
// touched only by the side that owns the slot. The read condition signals that a chunk was written,
// the write condition that one was taken.
//
// Not thread-safe, except for its gate.
class SegmentSlot {
public:
    explicit SegmentSlot(SlotGate& gate) : m_gate(gate) {}
    SegmentSlot(const SegmentSlot&) = delete;
    SegmentSlot& operator=(const SegmentSlot&) = delete;

    // Exclusive: refused while the registry shows another living end of the same role.
    enum class Claim { Shared, Exclusive };
    // Maps segment `name` (with `create`, creates it if there is none) and starts `end`, which must
    // outlive its use here. On failure logs one line and returns false; error() says why.
    bool open(const std::string& name, unsigned int capacity, bool create, SlotEnd& end,
              Claim claim = Claim::Shared);
    // Call it before `end` is destroyed. False when the system refused part of it; the slot is
    // closed in any case.
    bool close();
    bool isMapped() const { return m_mapping.isOpen(); }
    SlotGate& gate() { return m_gate; }
    const std::string& name() const { return m_name; }
    const OpenError& error() const { return m_error; }

    // --- while it is open
    SharedMemoryHeader& header() { return *m_mapping.header(); }
    char* data() { return m_mapping.data(); }
    // Bytes of the data area that are mapped.
    unsigned int mappedCapacity() const { return m_mapping.capacity(); }
    // Bytes of the data area as passed to open(): the limit of a writer's chunk.
    unsigned int capacity() const { return m_capacity; }
    SegmentRegistry& registry() { return m_registry; }
    // Removes the ends of processes that are gone (of that role, if it is given) from the registry;
    // with the mutex held. True if there were any.
    bool forgetGone(std::optional<SegmentRegistry::Role> role = std::nullopt) {
        return m_registry.removeGone([this](const RegistryEntry& gone) { m_end->forget(gone); },
                                     role);
    }

    enum class Soundness { Sound, Renewed, Lost };
    // Call it before touching a chunk. Checks the object, unless the last check is less than 50 us
    // old: touching memory that another process has truncated would kill this one. A removed or
    // truncated object is recreated, one beside it also after a wait without a notification: who
    // has removed it takes its notifications elsewhere. The slot goes on as it is when only its
    // mutex, a condition or the registry had to be. If that fails the slot is lost and unmapped
    // until a later call succeeds; each such call takes 20 ms.
    Soundness check(Clock::time_point now);
    // Whether another process has truncated the object, or the mutex, a condition or the registry.
    // Ask before touching any of them if time may have passed since the last check, which is valid
    // for 50 us here, too, or 1 ms under steady traffic for those beside the object. The next
    // check() recreates it. False while the slot is not mapped.
    bool isTruncated(Clock::time_point now = Clock::now());
    // Maps the size to which another end has grown the object.
    SegmentMapping::Growth grow() { return m_mapping.growToObject(); }

    // Holds the segment's mutex for a scope, if it could be locked: test the object. A failure is
    // logged once until the mutex could be locked again. Also tests false when an object was
    // truncated.
    class Section {
    public:
        static constexpr std::chrono::milliseconds kLongestWait{2000};
        // A `limit` of 0 is one try, whose failure is no log line.
        explicit Section(SegmentSlot& slot, std::chrono::milliseconds limit = kLongestWait,
                         Clock::time_point now = Clock::now());
        ~Section() {
            if (m_slot.m_mutex.owns()) m_slot.m_mutex.unlock();
        }
        Section(const Section&) = delete;
        Section& operator=(const Section&) = delete;
        explicit operator bool() const { return m_isHeld; }

    private:
        SegmentSlot& m_slot;
        bool m_isHeld = false;
    };

    enum class Signal { Written, Taken };
    void notify(Signal signal) { condition(signal).notify(); }

    // Waits first, then tests, with the mutex held. Without a notification `test` is called only
    // when the deadline has passed, or when `silence`, called after 10 ms without a notification
    // and then every 200 ms, returns true. Also false when the slot is closed or halted, when the
    // object was truncated meanwhile, or when the mutex could not be locked; this takes at most 20
    // ms beyond the deadline.
    template <class Test, class Silence>
    bool waitFor(Signal signal, Clock::time_point now, Clock::time_point deadline, const Test& test,
                 const Silence& silence);
    template <class Test>
    bool waitFor(Signal signal, Clock::time_point now, Clock::time_point deadline,
                 const Test& test) {
        return waitFor(signal, now, deadline, test, NoSilence{});
    }
    // For a stand-in that waits for a chunk in place of waitFor().
    std::optional<VDIFrameworkCommon::Awaited> beginWait() { return m_readCondition.beginWait(); }

    // Waits for a notification, for at most `longest` ms.
    void pause(Signal signal, unsigned int longest);

    // --- with the mutex held
    bool isFree();
    // Remembers which chunk it is, and which set-up of a writer placed it.
    bool isUnread();

    // --- by the side that owns the slot, without the mutex
    // Puts a chunk into the free slot. False, with nothing placed, when the mutex could not be
    // locked.
    bool place(const ChunkHeader& chunk, const char* bytes);
    // The same without waiting. Also false when the slot is not free, when nothing has been taken
    // since the last wait for that, or when more than kMostClearedAtOnce bytes behind the chunk
    // would have to be cleared.
    static constexpr unsigned int kMostClearedAtOnce = 128 * 1024;
    bool tryPlace(const ChunkHeader& chunk, const char* bytes);
    // Like isUnread(), but takes the mutex itself, if that needs no waiting. Ends a wait that
    // beginWait() began.
    bool isUnreadAtOnce();
    // Acknowledges the chunk that isUnread() found. False when the slot no longer holds it, because
    // a newly set-up writer did not wait for its reader: the copy may be torn. Also false, with
    // nothing changed, when the mutex could not be locked within `limit`.
    bool take(std::chrono::milliseconds limit = Section::kLongestWait);

    // Changes with every set-up of a writer, and at times without one.
    std::uint64_t generation() const { return m_writeCondition.count(); }

private:
    struct NoSilence {
        bool operator()() const { return false; }
    };
    enum class Waited { Notified, TimedOut, Ended };

    template <class Step>
    bool withMemory(const Step& step);
    bool openAll(unsigned int capacity, bool create, bool isRenewed);
    bool createObjects();
    bool start(unsigned int capacity, bool create, bool isRenewed);
    bool mayStart();
    enum class Look { Sound, Cut, Removed, ObjectsCut };
    Look look(Clock::time_point now);
    bool areObjectsWhole(Clock::time_point now);
    bool areObjectsCurrent(Clock::time_point now);
    Soundness renew();
    Soundness renewObjects();
    bool reopenObjects();
    void logLost(const char* what);
    VDIFrameworkCommon::NamedCondition& condition(Signal signal) {
        return signal == Signal::Written ? m_readCondition : m_writeCondition;
    }
    // With the mutex held before and, unless Ended, after.
    Waited waitOnce(Signal signal, Clock::time_point now, Clock::time_point until,
                    std::chrono::milliseconds longest, std::chrono::milliseconds relock);
    static std::chrono::milliseconds mutexWait(Clock::time_point now, Clock::time_point deadline);
    void logLockTaken();
    bool isFreeAtOnce();
    bool isSoundAtOnce(Clock::time_point now);
    void fill(const ChunkHeader& chunk, const char* bytes);
    bool publish(std::chrono::milliseconds limit);
    unsigned int dirtyBehind(unsigned int length);

    SlotGate& m_gate;
    std::string m_name;
    SlotEnd* m_end = nullptr;
    VDIFrameworkCommon::NamedMutex m_mutex;
    bool m_isMutexLate = false;
    VDIFrameworkCommon::NamedCondition m_readCondition;
    VDIFrameworkCommon::NamedCondition m_writeCondition;
    SegmentMapping m_mapping;
    SegmentRegistry m_registry;
    OpenError m_error;
    unsigned int m_capacity = 0;
    Claim m_claim = Claim::Shared;
    Clock::time_point m_lastLook{};
    Clock::time_point m_objectsIntactAt{};
    // The last wait ended without a notification.
    bool m_isSilent = true;
    Clock::time_point m_namesAskedAt{};
    // The data area behind the last chunk is zero.
    bool m_restIsClear = false;
    // The new message ID, and the generation, at which a chunk was last found unread.
    long m_unreadId = 0;
    std::uint64_t m_unreadGeneration = 0;
    KLT::kltlogger::LogRepeats m_backwards;
};

template <class Test, class Silence>
bool SegmentSlot::waitFor(Signal signal, Clock::time_point now, Clock::time_point deadline,
                          const Test& test, const Silence& silence) {
    constexpr std::chrono::milliseconds kFirstSlice{10};
    constexpr std::chrono::milliseconds kSlice{200};
    constexpr bool kAsks = !std::is_same_v<Silence, NoSilence>;
    const auto relock = mutexWait(now, deadline);
    const Section section(*this, relock, now);
    std::chrono::milliseconds longest = kAsks ? kFirstSlice : std::chrono::milliseconds(1000);
    while (m_mutex.owns()) {
        if (!m_gate.isPassable()) return false;
        const Waited waited = waitOnce(signal, now, deadline, longest, relock);
        if (waited == Waited::Ended || !m_gate.isPassable() || isTruncated()) return false;
        const bool isAsked = waited == Waited::Notified || (kAsks && silence());
        if (isAsked && test()) return true;
        now = Clock::now();
        if (now >= deadline) return test();
        if (kAsks && waited == Waited::TimedOut) longest = kSlice;
    }
    return false;
}

}  // namespace shared_memory
