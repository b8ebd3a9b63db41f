#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <span>
#include <thread>
#include <vector>

#include "LocalMutex.h"
#include "VirtualChannel.h"
#include "WorkerThread.h"

namespace NorvoVirtualChannel::tc {

// Limits on stream data in transit, in packets.
struct FlowLimits {
    std::size_t slice;     // taken from a message at a time; a message that fits in one is short
    std::size_t quantum;   // taken from a message before it is the next one's turn
    std::size_t backlog;   // most packets in one queue of the worker
    std::size_t alone;     // the same for long messages of one thread alone on a fast transport
    std::size_t lowWater;  // a queue this short is refilled
    std::size_t stage;     // cut ahead from a waiting message
    std::size_t first;     // cut from a message for which the worker waits; with pauses, all of a
                           // stage: a worker that runs out of packets skips a pause
};

// Holds messages of streams until the worker has room for them. Of each, the next stage is already
// cut into packets. Long messages take turns of one quantum; up to three short ones go between two
// of their slices. Each priority has its own lane, for one of the worker's queues. While only one
// thread uses a lane and the transport is fast, a deeper queue delays nobody by more than some
// milliseconds, and the two threads change places less often.
//
// This is the streams' flow control: the sending thread waits here and meanwhile takes nothing more
// from its segment.
//
// Thread-safe. Its lock is taken before the worker's and held while packets enter the worker's
// queues or are dropped from them: nothing sent before a reset is queued after it.
class Turnstile final : public WorkSource {
public:
    // The rest of one message. Used on the sender's thread only.
    class Message {
    public:
        virtual ~Message() = default;
        virtual std::size_t remaining() const = 0;  // packets
        // Appends the next `count` packets, or as many as remain, to `stage`.
        virtual void cut(std::size_t count, std::vector<WorkItem>& stage) = 0;
    };

    explicit Turnstile(const FlowLimits& limits) : m_limits(limits) {}

    // Initially closed and not available.
    void open();
    // Makes all waiting senders return.
    void close();
    // Whether the transport takes packets. While it does not, senders wait. `worker` is null when
    // the channel no longer has one.
    void setAvailable(bool available, WorkerThread* worker);
    // Drops the waiting messages and what the worker (may be null) has not sent yet.
    void reset(WorkerThread* worker);

    // Like VirtualChannel::SendStreamData(), but throws std::bad_alloc; the message is then
    // dropped.
    StreamSend pass(Message& message, bool lowPriority, WorkerThread& worker,
                    const std::function<bool()>& goesOn);
    // The same without waiting: NotSent, too, when the message is long or it is not its turn.
    StreamSend passAtOnce(Message& message, bool lowPriority, WorkerThread& worker) {
        if (message.remaining() > m_limits.slice) return StreamSend::NotSent;
        return pass(message, lowPriority, worker, [] { return false; });
    }
    void wakeSenders();
    // Whether no long message has been sent lately.
    bool hadNoLongMessageLately() const {
        return std::chrono::steady_clock::now() - m_longOneAt.load() >= kAlone;
    }
    // The number of waiting messages.
    std::size_t waiting() const;

    void refill(WorkerThread& worker) override;
    bool hasMore() const override { return m_lanes[false].waits || m_lanes[true].waits; }

private:
    struct Sender;
    using Senders = std::list<Sender*>;

    // A message in the turnstile, on its sending thread's stack. Guarded by m_mutex, except that
    // `stage` and `next` belong to the thread while the sender does not wait.
    struct Sender {
        Sender(bool isShortOne, std::size_t waitsOn) : isShort(isShortOne), condition(waitsOn) {}
        std::size_t left() const { return stage.size() - next; }
        StreamSend outcome(StreamSend notBegun) const {
            return begun ? StreamSend::Dropped : notBegun;
        }

        const bool isShort;
        std::vector<WorkItem> stage;
        std::size_t next = 0;  // index in the stage
        bool begun = false;    // part of the message has been queued
        bool waits = false;    // in a lane
        StreamSend ifNotBegun = StreamSend::NotSent;
        std::size_t condition;  // which to wait on
        Senders place{this};    // its list node while in no lane, so entering allocates nothing
    };

    struct Lane {
        bool isEmpty() const { return shortOnes.empty() && longOnes.empty(); }
        Senders& sendersLike(const Sender& one) { return one.isShort ? shortOnes : longOnes; }

        Senders shortOnes;
        Senders longOnes;      // it is the front one's turn
        std::size_t turn = 0;  // packets taken in this turn
        unsigned int shortInARow = 0;
        std::thread::id user;                                   // the last one
        std::chrono::steady_clock::time_point usedAt;           // by that one
        std::chrono::steady_clock::time_point lastContendedAt;  // when another one used it last
        // The transport's pace, measured over a backlog of packets each.
        std::ptrdiff_t queued = 0;
        std::ptrdiff_t sentAtMark = 0;
        std::chrono::steady_clock::time_point markedAt;
        bool isFast = false;
        // A sender waits for room. Polled by the worker before each packet.
        std::atomic<bool> waits{false};
    };

    // Holds the lock. Senders removed meanwhile are notified after it is released: they may run at
    // once and want it.
    class NORVO_SCOPED_CAPABILITY Section {
    public:
        explicit Section(Turnstile& turnstile) NORVO_ACQUIRE(turnstile.m_mutex);
        ~Section() NORVO_RELEASE();
        Section(const Section&) = delete;
        Section& operator=(const Section&) = delete;

    private:
        Turnstile& m_turnstile;
    };
    static constexpr std::size_t kConditions = 64;
    static constexpr std::chrono::milliseconds kAlone{200};

    void beginLongOne(WorkerThread& worker);
    void enter(Sender& sender, bool lowPriority) NORVO_REQUIRES(m_mutex);
    static void noteUser(Lane& lane);
    void notePace(Lane& lane, std::size_t backlog) const;
    std::size_t nextStage(const Sender& sender, std::size_t backlog) const;
    void waitForTurn(Sender& sender, bool lowPriority, const std::function<bool()>& goesOn)
        NORVO_EXCLUDES(m_mutex);
    void leave(Sender& sender, bool lowPriority) NORVO_REQUIRES(m_mutex);
    void remove(Senders& senders, Senders::iterator place) NORVO_REQUIRES(m_mutex);
    void dismissAll(StreamSend ifNotBegun) NORVO_REQUIRES(m_mutex);
    void fill(bool lowPriority, WorkerThread& worker) NORVO_REQUIRES(m_mutex);
    Senders& nextIn(Lane& lane) NORVO_REQUIRES(m_mutex);
    bool hasRoom(const Lane& lane, const Sender& sender, std::size_t packets) const
        NORVO_REQUIRES(m_mutex);
    std::size_t nextSlice(const Lane& lane, const Sender& sender) const NORVO_REQUIRES(m_mutex);
    void take(Lane& lane, Senders& senders, std::size_t count, WorkerThread& worker)
        NORVO_REQUIRES(m_mutex);
    void noteWaiting() NORVO_REQUIRES(m_mutex);

    const FlowLimits m_limits;
    std::atomic<std::chrono::steady_clock::time_point> m_longOneAt{};
    mutable VDIFrameworkCommon::LocalMutex m_mutex;
    bool m_open NORVO_GUARDED_BY(m_mutex) = false;
    bool m_available NORVO_GUARDED_BY(m_mutex) = false;
    std::uint64_t m_epoch NORVO_GUARDED_BY(m_mutex) = 0;  // counts resets
    // Shared by the senders, as one that is to be notified may be gone by then.
    std::array<VDIFrameworkCommon::LocalCondition, kConditions> m_conditions;
    std::uint64_t m_removed NORVO_GUARDED_BY(m_mutex) = 0;  // a bit per condition to notify
    std::atomic<std::size_t> m_nextCondition{0};
    Lane m_lanes[2];  // index: low priority; under m_mutex except `waits`
};

}  // namespace NorvoVirtualChannel::tc
