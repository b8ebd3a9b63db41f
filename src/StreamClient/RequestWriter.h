#pragma once

#include <atomic>
#include <chrono>
#include <string>

#include "AgentView.h"
#include "LocalMutex.h"
#include "SegmentSlot.h"

namespace NorvoStreamClient {

// The INFO input segment as one of the agent's clients writes it.
//
// A broadcast segment is made for one writer: each one resets the message IDs at its start, and
// judges by its own writes whether the readers have taken what is in the slot. Where several write,
// the first makes the agent read an old request again, the second lets one client overwrite another
// one's request. This writer leaves the IDs as they are and goes by the words in shared memory
// alone (BroadcastCounts.h, SegmentRegistry.h). Not thread-safe.
class RequestSlot : public shared_memory::SlotEnd {
public:
    RequestSlot() = default;
    ~RequestSlot() override;
    RequestSlot(const RequestSlot&) = delete;
    RequestSlot& operator=(const RequestSlot&) = delete;

    // Opens the segment when it is not open.
    bool open(const std::string& name);
    // Places a message, and returns its ID, when some reader that lives, as far as is known, is
    // ready for one: it has taken the message before. Also when nobody has taken that one for 2 s
    // although a reader lives: nobody will be robbed of it. Else 0.
    long tryPlace(const std::string& text);
    // The message of that ID was taken by a reader that was there when it was written.
    bool isTaken(long id);
    // Waits for a reader to take something, for at most 2 ms.
    void pause();

    shared_memory::SegmentRegistry::Role role() const override {
        return shared_memory::SegmentRegistry::Role::Writer;
    }
    void begin(bool /*isRenewed*/) override {}
    void forget(const shared_memory::RegistryEntry& gone) override;

private:
    // With the segment's mutex held.
    bool mayPlace(Clock::time_point now);
    long place(const std::string& text);

    shared_memory::SlotGate m_gate;
    shared_memory::SegmentSlot m_slot{m_gate};
    // Since when no reader is ready for anything but the message of this ID.
    Clock::time_point m_heldUpSince{};
    long m_heldUpId = -1;
    Clock::time_point m_lastLook{};
};

// Writes requests for one client of the agent. A request waits until the agent has taken the one
// before, of whichever client that is; it keeps nothing locked meanwhile. Thread-safe.
class RequestWriter {
public:
    explicit RequestWriter(std::string segmentName) : m_name(std::move(segmentName)) {}

    // True once an agent has taken `text`, which may be empty: a sign of life that the agent's
    // segment takes and the agent itself does not hear of. False when none did until `deadline`; a
    // request that was left lying is not taken later by an agent that starts then.
    bool send(const std::string& text, Clock::time_point deadline);

    // Ends a send on another thread, and makes every later one fail.
    void cancel() { m_cancelled = true; }

private:
    bool sendStep(const std::string& text, long& placed);

    const std::string m_name;
    std::atomic<bool> m_cancelled{false};
    // Held for one look at the slot, or a pause of 2 ms.
    VDIFrameworkCommon::LocalMutex m_mutex;
    RequestSlot m_slot NORVO_GUARDED_BY(m_mutex);
};

}  // namespace NorvoStreamClient
