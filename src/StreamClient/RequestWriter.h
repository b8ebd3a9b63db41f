#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <string>

#include "AgentView.h"
#include "LocalMutex.h"
#include "SegmentSlot.h"

namespace NorvoStreamClient {

// The INFO input segment, as written by one of the agent's clients.
//
// A broadcast segment is designed for one writer: it resets the message IDs when it starts, and
// tells from its own writes whether the readers have taken the message in the slot. With several
// writers, the former makes the agent read an old request again, and the latter lets one client
// overwrite another's request. This writer leaves the IDs alone and relies only on the words in
// shared memory (BroadcastCounts.h, SegmentRegistry.h). Not thread-safe.
class RequestSlot : public shared_memory::SlotEnd {
public:
    RequestSlot() = default;
    ~RequestSlot() override;
    RequestSlot(const RequestSlot&) = delete;
    RequestSlot& operator=(const RequestSlot&) = delete;

    // A message that this end has placed.
    struct Placed {
        long id = 0;  // 0: none
        // In which of the objects that the segment has had; the IDs start anew in each.
        unsigned int object = 0;
    };

    // Opens the segment unless it is open.
    bool open(const std::string& name);
    // True when a reader that was there when message `placed` was written has taken it. Else places
    // `text` and sets `placed` when a reader is ready and the previous message was taken, or can no
    // longer be: all readers that were there when it was written are gone. Also when none of them
    // has taken it for 2 s: none ever will. So `text` is placed again when it was overwritten
    // before it was taken, when a new agent has not seen it, or when the segment was recreated.
    bool step(const std::string& text, Placed& placed);
    // Waits for a reader to take something.
    void pause(std::chrono::milliseconds longest);

    shared_memory::SegmentRegistry::Role role() const override {
        return shared_memory::SegmentRegistry::Role::Writer;
    }
    void begin(bool isRenewed) override;
    void forget(const shared_memory::RegistryEntry& gone) override;

private:
    // With the segment's mutex held.
    bool isTaken(long id);
    bool isTakenFromSlot();
    bool isAwaited();
    bool mayPlace(Clock::time_point now);
    void giveUpReaders();
    long place(const std::string& text);

    shared_memory::SlotGate m_gate;
    shared_memory::SegmentSlot m_slot{m_gate};
    unsigned int m_object = 0;
    // Since when the message with this ID has kept others waiting.
    Clock::time_point m_heldUpSince{};
    long m_heldUpId = -1;
    Clock::time_point m_lastLook{};
};

// Writes requests for one client of the agent. A request waits until the agent has taken the
// previous one, from whichever client, without blocking the others. Thread-safe.
class RequestWriter {
public:
    explicit RequestWriter(std::string segmentName) : m_name(std::move(segmentName)) {}

    // True once an agent has taken `text`. An empty text is a heartbeat: the agent's segment takes
    // it, but the agent itself does not see it. False when no agent took it by `deadline`; an agent
    // that starts later does not take it either. Also false, within about 100 ms, once `mayGoOn`
    // returns false.
    bool send(
        const std::string& text, Clock::time_point deadline,
        const std::function<bool()>& mayGoOn = [] { return true; });

    // Ends a send on another thread, and makes every later one fail.
    void cancel() { m_cancelled = true; }

private:
    bool sendStep(const std::string& text, RequestSlot::Placed& placed,
                  std::chrono::milliseconds& pause);

    const std::string m_name;
    std::atomic<bool> m_cancelled{false};
    std::atomic<int> m_senders{0};
    // Held for one look at the slot, or a pause.
    VDIFrameworkCommon::LocalMutex m_mutex;
    RequestSlot m_slot NORVO_GUARDED_BY(m_mutex);
};

}  // namespace NorvoStreamClient
