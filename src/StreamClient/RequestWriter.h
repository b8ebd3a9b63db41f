#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <string>

#include "AgentView.h"
#include "LocalMutex.h"
#include "NamedMutex.h"
#include "SharedMemoryBroadcast.h"

namespace NorvoStreamClient {

// The INFO input segment as one of the agent's clients writes it.
//
// A broadcast segment is made for one writer: each one resets the message IDs at its start, and
// judges by its own writes whether the readers have taken what is in the slot. Where several write,
// the first makes the agent read an old request again, the second lets one client overwrite another
// one's request. This writer leaves the IDs as they are and goes by the words in the segment alone:
// readers ready for the next message (offset 8) less those that came since it was written (chunk
// index less 1) have taken it.
class RequestSegment : public SharedMemoryBroadcast {
public:
    ~RequestSegment() override = default;

    // Some reader is ready for a message, or the slot has not moved for so long that nobody will be
    // robbed of one.
    bool mayPlace();
    // The message in the slot was taken by a reader that was there when it was written.
    bool isTaken();
    // Replaces what is in the slot, taken or not. False when it is not set up.
    bool place(const std::string& text);

protected:
    void startWriting() override {}

private:
    // Since when no reader is ready for anything but the message of this ID.
    Clock::time_point m_heldUpSince NORVO_GUARDED_BY(m_operationLock){};
    long m_heldUpId NORVO_GUARDED_BY(m_operationLock) = -1;
};

// Writes requests, one client of the agent at a time: between the processes a named mutex lets the
// next request wait until the agent has taken the one before. Thread-safe.
class RequestWriter {
public:
    explicit RequestWriter(std::string segmentName) : m_name(std::move(segmentName)) {}

    // True once an agent has taken `text`, which may be empty: a sign of life that the agent's
    // segment takes and the agent itself does not hear of. False when none did until `deadline`; a
    // request that was left lying is not taken later by an agent that starts then. The turn of
    // another process's request may be waited for up to 2 s beyond the deadline.
    bool send(const std::string& text, Clock::time_point deadline);

    // Ends a send on another thread, and makes every later one fail.
    void cancel() { m_cancelled = true; }

private:
    bool join() NORVO_REQUIRES(m_mutex);
    bool sendInTurn(const std::string& text, Clock::time_point deadline) NORVO_REQUIRES(m_mutex);
    template <class Test>
    bool waitFor(Clock::time_point deadline, Test test);

    const std::string m_name;
    std::atomic<bool> m_cancelled{false};
    VDIFrameworkCommon::LocalMutex m_mutex;
    VDIFrameworkCommon::NamedMutex m_turn NORVO_GUARDED_BY(m_mutex);
    std::unique_ptr<RequestSegment> m_segment NORVO_GUARDED_BY(m_mutex);
};

}  // namespace NorvoStreamClient
