#include "Turnstile.h"

#include <algorithm>
#include <bit>
#include <utility>

#include "Log.h"

namespace NorvoVirtualChannel::tc {

using VDIFrameworkCommon::LocalLock;
using Clock = std::chrono::steady_clock;

namespace {
constexpr unsigned int kShortPerSlice = 3;
// For a backlog of packets.
constexpr std::chrono::milliseconds kFast{2};
}  // namespace

// ---- The lock

Turnstile::Section::Section(Turnstile& turnstile) : m_turnstile(turnstile) {
    turnstile.m_mutex.lock();
}

Turnstile::Section::~Section() {
    std::uint64_t removed = std::exchange(m_turnstile.m_removed, 0);
    m_turnstile.m_mutex.unlock();
    for (; removed != 0; removed &= removed - 1)
        m_turnstile.m_conditions[static_cast<std::size_t>(std::countr_zero(removed))].notify_all();
}

// ---- States

void Turnstile::open() {
    const Section section(*this);
    m_open = true;
    noteWaiting();
}

void Turnstile::close() {
    const Section section(*this);
    m_open = false;
    dismissAll(StreamSend::NotSent);
}

void Turnstile::setAvailable(bool available, WorkerThread* worker) {
    {
        const Section section(*this);
        m_available = available;
        for (const bool lowPriority : {false, true}) {
            if (worker) fill(lowPriority, *worker);
        }
        noteWaiting();
    }
    if (worker) worker->signal();
}

void Turnstile::reset(WorkerThread* worker) {
    const Section section(*this);
    dismissAll(StreamSend::Dropped);
    if (worker) worker->ResetQueue();
}

// ---- Senders

StreamSend Turnstile::pass(Message& message, bool lowPriority, WorkerThread& worker,
                           const std::function<bool()>& goesOn) {
    Sender sender(message.remaining() <= m_limits.slice, m_nextCondition++ % kConditions);
    if (!sender.isShort) beginLongOne(worker);
    std::uint64_t epoch = 0;
    while (message.remaining() > 0) {
        sender.stage.clear();
        sender.next = 0;
        message.cut(nextStage(sender, worker.backlog(lowPriority)), sender.stage);
        bool waits = false;
        {
            const Section section(*this);
            if (!sender.begun) epoch = m_epoch;
            if (!m_open || epoch != m_epoch) return sender.outcome(StreamSend::NotSent);
            enter(sender, lowPriority);
            // A worker faster than this thread waits for the next slice.
            if (!sender.isShort) noteWaiting();
            fill(lowPriority, worker);
            noteWaiting();
            waits = sender.waits;
        }
        // The worker may have emptied its queue, found nobody waiting and parked meanwhile. It may
        // run at once on this processor, and must not have to wait for the lock.
        worker.signal();
        if (waits) waitForTurn(sender, lowPriority, goesOn);
        if (sender.left() > 0) return sender.outcome(sender.ifNotBegun);
    }
    return StreamSend::Sent;
}

// A worker busy with it cannot stand in for the streams.
void Turnstile::beginLongOne(WorkerThread& worker) {
    m_longOneAt = Clock::now();
    const auto standIn = worker.standIn();
    if (!standIn->isEmpty()) standIn->giveAllBack();
}

// A worker that has nothing else begins to send while the rest is cut.
std::size_t Turnstile::nextStage(const Sender& sender, std::size_t backlog) const {
    return backlog == 0 && !sender.begun ? m_limits.first : m_limits.stage;
}

void Turnstile::waitForTurn(Sender& sender, bool lowPriority, const std::function<bool()>& goesOn) {
    const LocalLock lock(m_mutex);
    while (sender.waits && goesOn()) m_conditions[sender.condition].wait(m_mutex);
    if (sender.waits) leave(sender, lowPriority);
}

void Turnstile::wakeSenders() {
    { LocalLock lock(m_mutex); }
    for (auto& condition : m_conditions) condition.notify_all();
}

std::size_t Turnstile::waiting() const {
    LocalLock lock(m_mutex);
    std::size_t count = 0;
    for (const Lane& lane : m_lanes) count += lane.shortOnes.size() + lane.longOnes.size();
    return count;
}

void Turnstile::enter(Sender& sender, bool lowPriority) {
    Lane& lane = m_lanes[lowPriority];
    noteUser(lane);
    Senders& senders = lane.sendersLike(sender);
    senders.splice(senders.end(), sender.place);
    sender.waits = true;
}

void Turnstile::noteUser(Lane& lane) {
    const auto self = std::this_thread::get_id();
    if (lane.user != self) lane.lastContendedAt = lane.usedAt;
    lane.user = self;
    lane.usedAt = Clock::now();
}

void Turnstile::notePace(Lane& lane, std::size_t backlog) const {
    const std::ptrdiff_t sent = lane.queued - static_cast<std::ptrdiff_t>(backlog);
    if (sent - lane.sentAtMark < static_cast<std::ptrdiff_t>(m_limits.backlog)) return;
    const auto now = Clock::now();
    lane.isFast = now - lane.markedAt < kFast;
    lane.sentAtMark = sent;
    lane.markedAt = now;
}

void Turnstile::leave(Sender& sender, bool lowPriority) {
    Lane& lane = m_lanes[lowPriority];
    Senders& senders = lane.sendersLike(sender);
    const auto place = std::find(senders.begin(), senders.end(), &sender);
    if (!sender.isShort && place == senders.begin()) lane.turn = 0;
    remove(senders, place);
    noteWaiting();
}

// Also wakes the removed sender.
void Turnstile::remove(Senders& senders, Senders::iterator place) {
    Sender& sender = **place;
    sender.place.splice(sender.place.end(), senders, place);
    sender.waits = false;
    m_removed |= std::uint64_t{1} << sender.condition;
}

void Turnstile::dismissAll(StreamSend ifNotBegun) {
    ++m_epoch;
    for (Lane& lane : m_lanes) {
        lane.turn = 0;
        for (Senders* const senders : {&lane.shortOnes, &lane.longOnes}) {
            while (!senders->empty()) {
                senders->front()->ifNotBegun = ifNotBegun;
                remove(*senders, senders->begin());
            }
        }
    }
    noteWaiting();
}

// ---- The worker

void Turnstile::refill(WorkerThread& worker) {
    for (const bool lowPriority : {false, true}) {
        if (!m_lanes[lowPriority].waits.load(std::memory_order_relaxed)) continue;
        if (worker.backlog(lowPriority) > m_limits.lowWater) continue;
        const Section section(*this);
        fill(lowPriority, worker);
        noteWaiting();
    }
}

void Turnstile::fill(bool lowPriority, WorkerThread& worker) {
    Lane& lane = m_lanes[lowPriority];
    if (!m_open || !m_available) return;
    notePace(lane, worker.backlog(lowPriority));
    while (!lane.isEmpty()) {
        Senders& senders = nextIn(lane);
        const std::size_t count = nextSlice(lane, *senders.front());
        if (!hasRoom(lane, *senders.front(), worker.backlog(lowPriority) + count)) break;
        lane.shortInARow = &senders == &lane.longOnes ? 0 : lane.shortInARow + 1;
        take(lane, senders, count, worker);
    }
}

Turnstile::Senders& Turnstile::nextIn(Lane& lane) {
    const bool shortOne =
        !lane.shortOnes.empty() && (lane.longOnes.empty() || lane.shortInARow < kShortPerSlice);
    return shortOne ? lane.shortOnes : lane.longOnes;
}

// Whether the worker's queue may grow to so many packets.
bool Turnstile::hasRoom(const Lane& lane, const Sender& sender, std::size_t packets) const {
    if (packets <= m_limits.backlog) return true;
    return packets <= m_limits.alone && !sender.isShort && lane.isFast &&
           Clock::now() - lane.lastContendedAt >= kAlone;
}

std::size_t Turnstile::nextSlice(const Lane& lane, const Sender& sender) const {
    const std::size_t slice = std::min(m_limits.slice, sender.left());
    return sender.isShort ? slice : std::min(slice, m_limits.quantum - lane.turn);
}

void Turnstile::take(Lane& lane, Senders& senders, std::size_t count, WorkerThread& worker) {
    Sender& sender = *senders.front();
    const bool lowPriority = &lane == &m_lanes[1];
    const std::span<WorkItem> slice = std::span(sender.stage).subspan(sender.next, count);
    sender.begun = true;
    if (!worker.queue(slice, lowPriority)) {
        NORVO_LOG(Error, "No memory to queue packets");
        remove(senders, senders.begin());
        return;
    }
    sender.next += count;
    lane.queued += static_cast<std::ptrdiff_t>(count);
    if (!sender.isShort) lane.turn += count;
    if (sender.left() == 0) {
        if (!sender.isShort) lane.turn = 0;
        remove(senders, senders.begin());
    } else if (lane.turn == m_limits.quantum && !sender.isShort) {
        lane.turn = 0;
        senders.splice(senders.end(), senders, senders.begin());
    }
}

void Turnstile::noteWaiting() {
    for (Lane& lane : m_lanes) lane.waits = m_open && m_available && !lane.isEmpty();
}

}  // namespace NorvoVirtualChannel::tc
