#include "RequestWriter.h"

#include <algorithm>

#include "BroadcastCounts.h"
#include "BroadcastWriter.h"
#include "InfoSegments.h"
#include "Log.h"
#include "ProcessIdentity.h"

namespace NorvoStreamClient {

using shared_memory::BroadcastCounts;
using shared_memory::RegistryEntry;
using shared_memory::SegmentRegistry;
using shared_memory::SegmentSlot;
using std::chrono::milliseconds;
using VDIFrameworkCommon::kInfoSegmentSize;
using VDIFrameworkCommon::LocalLock;
using VDIFrameworkCommon::ProcessIdentity;

namespace {

// A reader that has not taken a message by then never will: it is gone, or the message was never
// finished.
constexpr auto kLongestHoldUp = std::chrono::seconds(2);
constexpr auto kLookEvery = std::chrono::milliseconds(10);
constexpr auto kMutexWait = std::chrono::milliseconds(100);
// The reader wakes those who wait for their turn. One that does not is found by polling, but many
// who poll often would keep the mutex from the reader.
constexpr milliseconds kFirstPause{2};
constexpr milliseconds kLongestPause{64};

// Counts a thread that sends.
class Sender {
public:
    explicit Sender(std::atomic<int>& count) : m_count(count) { ++m_count; }
    ~Sender() { --m_count; }
    Sender(const Sender&) = delete;
    Sender& operator=(const Sender&) = delete;

private:
    std::atomic<int>& m_count;
};

// Only such a reader takes that message: it counts those before its start as seen.
bool wasThereBefore(const RegistryEntry& entry, long id) {
    return entry.is(SegmentRegistry::Role::Reader) && entry.since < id;
}

}  // namespace

RequestSlot::~RequestSlot() {
    m_gate.close();
    m_slot.close();
}

bool RequestSlot::open(const std::string& name) {
    return m_gate.isOpen() || m_slot.open(name, kInfoSegmentSize, true, *this);
}

void RequestSlot::begin(bool /*isRenewed*/) {
    ++m_object;
    m_heldUpId = -1;
}

// A reader that has not taken the message in the slot stays in the count of those that came:
// otherwise the message would seem to be taken.
void RequestSlot::forget(const RegistryEntry& gone) {
    const bool isReady = gone.countedAfterId == m_slot.header().newMessageId;
    if (isReady || !gone.is(SegmentRegistry::Role::Reader)) {
        BroadcastCounts(m_slot.header()).remove(gone);
    } else if (gone.isInside == 1) {
        BroadcastCounts(m_slot.header()).removeInside();
    }
}

// Looks and places in one section: a reader that takes the request in between would get it twice.
bool RequestSlot::step(const std::string& text, Placed& placed) {
    const auto now = Clock::now();
    if (m_slot.check(now) == SegmentSlot::Soundness::Lost) return false;
    {
        const SegmentSlot::Section section(m_slot, kMutexWait);
        if (!section) return false;
        if (placed.object == m_object && isTaken(placed.id)) return true;
        if (text.size() > m_slot.capacity() || !mayPlace(now)) return false;
        placed = {place(text), m_object};
    }
    m_slot.notify(SegmentSlot::Signal::Written);
    return false;
}

bool RequestSlot::mayPlace(Clock::time_point now) {
    if (now - m_lastLook >= kLookEvery) {
        m_lastLook = now;
        m_slot.forgetGone(SegmentRegistry::Role::Reader);
    }
    if (m_slot.header().lockWord2.load() > 0 && !isAwaited()) return true;
    if (const long id = m_slot.header().newMessageId.load(); id != m_heldUpId) {
        m_heldUpId = id;
        m_heldUpSince = now;
    }
    return now - m_heldUpSince > kLongestHoldUp &&
           m_slot.registry().hasLiving(SegmentRegistry::Role::Reader);
}

// Whether the message in the slot may still be taken by one of those for whom it was written. A
// reader that came later is ready, but skips it.
bool RequestSlot::isAwaited() {
    const long id = m_slot.header().newMessageId;
    if (isTakenFromSlot()) return false;
    bool isAwaited = false;
    m_slot.registry().forEachOther([&](const RegistryEntry& entry) {
        isAwaited = isAwaited ||
                    (wasThereBefore(entry, id) && !ProcessIdentity::isGone(entry.process.load()));
    });
    return isAwaited;
}

// If nobody has taken the message in the slot nobody ever will, but its readers are going to see a
// later one: for this one they count like readers that came too late.
void RequestSlot::giveUpReaders() {
    if (isTakenFromSlot()) return;
    const long id = m_slot.header().newMessageId;
    m_slot.registry().forEachOther([&](RegistryEntry& entry) {
        if (wasThereBefore(entry, id)) entry.since = id;
    });
}

long RequestSlot::place(const std::string& text) {
    giveUpReaders();
    // Overrides what a dead writer may have left: nobody else writes without the mutex.
    m_slot.header().writerLockCount = 1;
    storeBroadcast(m_slot, text.data(), static_cast<unsigned int>(text.size()));
    m_slot.header().lockWord2 = 0;
    m_slot.header().writerLockCount = 0;
    m_heldUpId = -1;
    return m_slot.header().newMessageId;
}

// If another client's request is in the slot and no agent registers there, the placing of that
// request proves that a reader was ready for it.
bool RequestSlot::isTaken(long id) {
    if (id == 0) return false;
    if (m_slot.header().newMessageId == id) return isTakenFromSlot();
    bool isTaken = !m_slot.registry().has(SegmentRegistry::Role::Reader);
    m_slot.registry().forEachOther([&](const RegistryEntry& entry) {
        isTaken = isTaken || (wasThereBefore(entry, id) && entry.lastSeenId >= id);
    });
    return isTaken;
}

// For registered readers the registry decides: the counts do not show one that took this request
// but not the one before, which a client that was killed while writing had left, and show one that
// left without taking it.
bool RequestSlot::isTakenFromSlot() {
    const BroadcastCounts counts(m_slot.header());
    const long id = m_slot.header().newMessageId;
    bool isTaken = false;
    long unregistered = static_cast<int>(counts.ready());
    m_slot.registry().forEachOther([&](const RegistryEntry& entry) {
        if (!entry.is(SegmentRegistry::Role::Reader) || entry.countedAfterId != id) return;
        --unregistered;
        isTaken = isTaken || wasThereBefore(entry, id);
    });
    return isTaken || (unregistered > 0 && static_cast<int>(counts.taken()) > 0);
}

void RequestSlot::pause(milliseconds longest) {
    const auto limit = static_cast<unsigned int>(longest.count());
    if (m_slot.isMapped()) m_slot.pause(SegmentSlot::Signal::Taken, limit);
}

bool RequestWriter::sendStep(const std::string& text, RequestSlot::Placed& placed,
                             milliseconds& pause) {
    LocalLock lock(m_mutex);
    const long before = placed.id;
    const bool isTaken = m_slot.step(text, placed);
    if (placed.id != before) pause = kFirstPause;
    return isTaken;
}

bool RequestWriter::send(const std::string& text, Clock::time_point deadline,
                         const std::function<bool()>& mayGoOn) {
    {
        LocalLock lock(m_mutex);
        if (m_cancelled || !m_slot.open(m_name)) return false;
    }
    const Sender sender(m_senders);
    RequestSlot::Placed placed;
    bool taken = false;
    auto pause = kFirstPause;
    while (!m_cancelled && !(taken = sendStep(text, placed, pause)) && Clock::now() < deadline &&
           mayGoOn()) {
        LocalLock lock(m_mutex);
        // The wake-up that one thread waits for may come while another one pauses.
        const auto longest = m_senders > 1 ? kFirstPause : pause;
        const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now());
        m_slot.pause(std::clamp(left, milliseconds(0), longest));
        pause = std::min(2 * pause, kLongestPause);
    }
    NORVO_LOG(Trace, taken ? "request taken: " : "request not taken: ", text);
    return taken;
}

}  // namespace NorvoStreamClient
