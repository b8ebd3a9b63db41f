#include "RequestWriter.h"

#include <algorithm>

#include "BroadcastCounts.h"
#include "BroadcastWriter.h"
#include "InfoSegments.h"
#include "Log.h"

NORVO_LOG_SOURCE("src/StreamClient/RequestWriter")

namespace NorvoStreamClient {

using shared_memory::BroadcastCounts;
using shared_memory::RegistryEntry;
using shared_memory::SegmentRegistry;
using shared_memory::SegmentSlot;
using VDIFrameworkCommon::kInfoSegmentSize;
using VDIFrameworkCommon::LocalLock;

namespace {

// A reader that has not taken a message by then never will: it is gone, or the message was never
// finished. So long a request may hold up those of others.
constexpr auto kLongestTry = std::chrono::seconds(2);
constexpr auto kLookEvery = std::chrono::milliseconds(10);
constexpr auto kTurnSlice = std::chrono::milliseconds(100);

}  // namespace

RequestSlot::~RequestSlot() {
    m_gate.close();
    m_slot.close();
}

bool RequestSlot::open(const std::string& name) {
    return m_gate.isOpen() || m_slot.open(name, kInfoSegmentSize, true, *this);
}

void RequestSlot::forget(const RegistryEntry& gone) {
    BroadcastCounts(m_slot.header()).remove(gone);
}

bool RequestSlot::mayPlace() {
    const auto now = Clock::now();
    if (m_slot.check(now) == SegmentSlot::Soundness::Lost) return false;
    if (now - m_lastLook >= kLookEvery) {
        m_lastLook = now;
        const SegmentSlot::Section section(m_slot);
        if (section) m_slot.forgetGone();
    }
    if (m_slot.header().lockWord2.load() > 0) return true;
    if (const long id = m_slot.header().newMessageId.load(); id != m_heldUpId) {
        m_heldUpId = id;
        m_heldUpSince = now;
    }
    return now - m_heldUpSince > kLongestTry &&
           m_slot.registry().hasLiving(SegmentRegistry::Role::Reader);
}

long RequestSlot::place(const std::string& text) {
    if (text.size() > m_slot.capacity()) return 0;
    long id = 0;
    {
        const SegmentSlot::Section section(m_slot);
        if (!section) return 0;
        // Whatever a writer that died has left there: the turn is this process's.
        m_slot.header().writerLockCount = 1;
        storeBroadcast(m_slot, text.data(), static_cast<unsigned int>(text.size()));
        m_slot.header().lockWord2 = 0;
        m_slot.header().writerLockCount = 0;
        id = m_slot.header().newMessageId;
    }
    m_heldUpId = -1;
    m_slot.notify(SegmentSlot::Signal::Written);
    return id;
}

// Once another client's request is in the slot, only the registry tells.
bool RequestSlot::isTaken(long id) {
    if (id == 0 || !m_slot.isMapped()) return false;
    if (m_slot.header().newMessageId == id) {
        return static_cast<int>(BroadcastCounts(m_slot.header()).taken()) > 0;
    }
    bool isTaken = false;
    m_slot.registry().forEachOther([&](const RegistryEntry& entry) {
        isTaken = isTaken || (entry.is(SegmentRegistry::Role::Reader) && entry.since < id &&
                              entry.lastSeenId >= id);
    });
    return isTaken;
}

void RequestSlot::pause() {
    if (m_slot.isMapped()) m_slot.pause(SegmentSlot::Signal::Taken, 2);
}

bool RequestWriter::join() {
    LocalLock lock(m_mutex);
    if (m_isJoined) return true;
    const std::string turn = shared_memory::kSegmentObjectPrefix + m_name + "_writers";
    m_isJoined = m_turn.create(turn.c_str()) && m_slot.open(m_name);
    return m_isJoined;
}

bool RequestWriter::mayPlace() {
    LocalLock lock(m_mutex);
    return m_slot.mayPlace();
}

bool RequestWriter::isTaken(long id) {
    LocalLock lock(m_mutex);
    return m_slot.isTaken(id);
}

template <class Step>
bool RequestWriter::repeat(Clock::time_point deadline, Step step) {
    while (!m_cancelled) {
        if (step()) return true;
        if (Clock::now() >= deadline) return false;
        LocalLock lock(m_mutex);
        m_slot.pause();
    }
    return false;
}

bool RequestWriter::takeTurn(Clock::time_point deadline) {
    while (!m_cancelled && Clock::now() < deadline)
        if (m_turn.lockFor(kTurnSlice)) return true;
    return false;
}

bool RequestWriter::sendInTurn(const std::string& text, long& placed, Clock::time_point deadline) {
    if (isTaken(placed)) return true;
    if (!mayPlace()) return false;
    {
        LocalLock lock(m_mutex);
        placed = m_slot.place(text);
    }
    return repeat(deadline, [&] { return isTaken(placed); });
}

bool RequestWriter::send(const std::string& text, Clock::time_point deadline) {
    if (m_cancelled || !join()) return false;
    long placed = 0;
    bool taken = false;
    while (!taken && repeat(deadline, [&] { return isTaken(placed) || mayPlace(); })) {
        const auto until = std::min(deadline, Clock::now() + kLongestTry);
        if (!takeTurn(until)) continue;
        taken = sendInTurn(text, placed, until);
        m_turn.unlock();
    }
    NORVO_LOG(Trace, taken ? "request taken: " : "request not taken: ", text);
    return taken;
}

}  // namespace NorvoStreamClient
