#include "RequestWriter.h"

#include "BroadcastCounts.h"
#include "BroadcastWriter.h"
#include "InfoSegments.h"
#include "Log.h"

namespace NorvoStreamClient {

using shared_memory::BroadcastCounts;
using shared_memory::RegistryEntry;
using shared_memory::SegmentRegistry;
using shared_memory::SegmentSlot;
using VDIFrameworkCommon::kInfoSegmentSize;
using VDIFrameworkCommon::LocalLock;

namespace {

// A reader that has not taken a message by then never will: it is gone, or the message was never
// finished.
constexpr auto kLongestHoldUp = std::chrono::seconds(2);
constexpr auto kLookEvery = std::chrono::milliseconds(10);
constexpr auto kMutexWait = std::chrono::milliseconds(100);

}  // namespace

RequestSlot::~RequestSlot() {
    m_gate.close();
    m_slot.close();
}

bool RequestSlot::open(const std::string& name) {
    return m_gate.isOpen() || m_slot.open(name, kInfoSegmentSize, true, *this);
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

long RequestSlot::tryPlace(const std::string& text) {
    const auto now = Clock::now();
    if (m_slot.check(now) == SegmentSlot::Soundness::Lost || text.size() > m_slot.capacity()) {
        return 0;
    }
    long id = 0;
    {
        const SegmentSlot::Section section(m_slot, kMutexWait);
        if (!section || !mayPlace(now)) return 0;
        id = place(text);
    }
    m_slot.notify(SegmentSlot::Signal::Written);
    return id;
}

bool RequestSlot::mayPlace(Clock::time_point now) {
    if (now - m_lastLook >= kLookEvery) {
        m_lastLook = now;
        m_slot.forgetGone();
    }
    if (m_slot.header().lockWord2.load() > 0) return true;
    if (const long id = m_slot.header().newMessageId.load(); id != m_heldUpId) {
        m_heldUpId = id;
        m_heldUpSince = now;
    }
    return now - m_heldUpSince > kLongestHoldUp &&
           m_slot.registry().hasLiving(SegmentRegistry::Role::Reader);
}

long RequestSlot::place(const std::string& text) {
    // Overrides what a dead writer may have left: nobody else writes without the mutex.
    m_slot.header().writerLockCount = 1;
    storeBroadcast(m_slot, text.data(), static_cast<unsigned int>(text.size()));
    m_slot.header().lockWord2 = 0;
    m_slot.header().writerLockCount = 0;
    m_heldUpId = -1;
    return m_slot.header().newMessageId;
}

// Once another client's request is in the slot, the registry decides. If no agent registers there,
// the placing of that request proves that a reader was ready for it.
bool RequestSlot::isTaken(long id) {
    if (id == 0 || !m_slot.isMapped() || m_slot.isCut()) return false;
    if (m_slot.header().newMessageId == id) {
        return static_cast<int>(BroadcastCounts(m_slot.header()).taken()) > 0;
    }
    bool isTaken = !m_slot.registry().has(SegmentRegistry::Role::Reader);
    m_slot.registry().forEachOther([&](const RegistryEntry& entry) {
        isTaken = isTaken || (entry.is(SegmentRegistry::Role::Reader) && entry.since < id &&
                              entry.lastSeenId >= id);
    });
    return isTaken;
}

void RequestSlot::pause() {
    if (m_slot.isMapped()) m_slot.pause(SegmentSlot::Signal::Taken, 2);
}

bool RequestWriter::sendStep(const std::string& text, long& placed) {
    LocalLock lock(m_mutex);
    if (m_slot.isTaken(placed)) return true;
    // Placed again when it was overwritten, or when a new agent has not seen it.
    if (const long id = m_slot.tryPlace(text); id != 0) placed = id;
    return false;
}

bool RequestWriter::send(const std::string& text, Clock::time_point deadline) {
    {
        LocalLock lock(m_mutex);
        if (m_cancelled || !m_slot.open(m_name)) return false;
    }
    long placed = 0;
    bool taken = false;
    while (!m_cancelled && !(taken = sendStep(text, placed)) && Clock::now() < deadline) {
        LocalLock lock(m_mutex);
        m_slot.pause();
    }
    NORVO_LOG(Trace, taken ? "request taken: " : "request not taken: ", text);
    return taken;
}

}  // namespace NorvoStreamClient
