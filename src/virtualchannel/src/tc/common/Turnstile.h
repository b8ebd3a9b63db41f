#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <span>
#include <vector>

#include "LocalMutex.h"
#include "VirtualChannel.h"
#include "WorkerThread.h"

namespace NorvoVirtualChannel::tc {

// How much stream data is on its way, in packets.
struct FlowLimits {
    std::size_t slice;    // taken from one message at a time; a message of at most so many is short
    std::size_t quantum;  // taken from one message before the next one's turn comes
    std::size_t backlog;  // in a queue of the worker at most
    std::size_t lowWater;  // a queue this short is filled up again
    std::size_t stage;     // cut ahead of a message that waits
};

// Where messages of streams wait, cut into packets as far as the next stage of each, until the
// worker has room for them. Long messages take turns of a quantum; short ones come between their
// slices, three for one. Each priority is a lane of its own, for one of the worker's queues.
//
// So no more is accepted from a stream than the transport carries: the thread that brings a message
// waits here, and takes nothing more from its segment.
//
// Thread-safe. Its lock is taken before the worker's, and held while packets are put into the
// worker's queues or dropped from them: what was brought before a reset is never queued after it.
class Turnstile final : public WorkSource {
public:
    // What remains of one message. Thread of the sender only.
    class Message {
    public:
        virtual ~Message() = default;
        virtual std::size_t remaining() const = 0;  // packets
        // Puts the next `count` packets, or as many as remain, behind `stage`.
        virtual void cut(std::size_t count, std::vector<WorkItem>& stage) = 0;
    };

    explicit Turnstile(const FlowLimits& limits) : m_limits(limits) {}

    // Closed at first, and not available: there is nobody to send to.
    void open();
    // Sends those away who wait.
    void close();
    // Whether the transport takes packets at present. While it does not, senders wait. `worker` is
    // null when the channel has none any more.
    void setAvailable(bool available, WorkerThread* worker);
    // Drops the messages that wait here and what the worker (may be null) has not sent yet.
    void reset(WorkerThread* worker);

    // As VirtualChannel::SendStreamData(). Throws std::bad_alloc; the message is then dropped.
    StreamSend pass(Message& message, bool lowPriority, WorkerThread& worker,
                    const std::function<bool()>& goesOn);
    void wakeSenders();
    // How many messages wait here.
    std::size_t waiting() const;

    void refill(WorkerThread& worker) override;

private:
    struct Sender;
    using Senders = std::list<Sender*>;

    // A message that waits here, on the stack of the thread that has brought it. Guarded by
    // m_mutex but for `stage` and `next`, which are the thread's while the sender does not wait.
    struct Sender {
        explicit Sender(bool isShortOne) : isShort(isShortOne) {}
        std::size_t left() const { return stage.size() - next; }
        StreamSend outcome(StreamSend notBegun) const {
            return begun ? StreamSend::Dropped : notBegun;
        }

        const bool isShort;
        std::vector<WorkItem> stage;
        std::size_t next = 0;  // of the stage
        bool begun = false;    // some of the message has been queued
        bool waits = false;    // is in a lane
        StreamSend ifNotBegun = StreamSend::NotSent;
        VDIFrameworkCommon::LocalCondition changed;
        Senders place{this};  // its node, while it is in no lane: nothing is allocated on the way
    };

    struct Lane {
        bool isEmpty() const { return shortOnes.empty() && longOnes.empty(); }
        Senders& sendersLike(const Sender& one) { return one.isShort ? shortOnes : longOnes; }

        Senders shortOnes;
        Senders longOnes;      // the one in front has the turn
        std::size_t turn = 0;  // packets of it so far
        unsigned int shortInARow = 0;
        // Somebody waits for room: for the worker, which looks before each packet.
        std::atomic<bool> waits{false};
    };

    void enter(Sender& sender, bool lowPriority) NORVO_REQUIRES(m_mutex);
    void leave(Sender& sender, bool lowPriority) NORVO_REQUIRES(m_mutex);
    void remove(Senders& senders, Senders::iterator place) NORVO_REQUIRES(m_mutex);
    void sendAllAway(StreamSend ifNotBegun) NORVO_REQUIRES(m_mutex);
    void fill(bool lowPriority, WorkerThread& worker) NORVO_REQUIRES(m_mutex);
    Senders& nextIn(Lane& lane) NORVO_REQUIRES(m_mutex);
    std::size_t nextSlice(const Lane& lane, const Sender& sender) const NORVO_REQUIRES(m_mutex);
    void take(Lane& lane, Senders& senders, std::size_t count, WorkerThread& worker)
        NORVO_REQUIRES(m_mutex);
    void noteWaiting() NORVO_REQUIRES(m_mutex);

    const FlowLimits m_limits;
    mutable VDIFrameworkCommon::LocalMutex m_mutex;
    bool m_open NORVO_GUARDED_BY(m_mutex) = false;
    bool m_available NORVO_GUARDED_BY(m_mutex) = false;
    std::uint64_t m_epoch NORVO_GUARDED_BY(m_mutex) = 0;  // counts resets
    Lane m_lanes[2];  // by low priority; but for `waits`, under m_mutex
};

}  // namespace NorvoVirtualChannel::tc
