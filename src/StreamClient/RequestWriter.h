#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "AgentView.h"

namespace NorvoStreamClient {

inline constexpr unsigned int kInfoCapacity = 10240;  // bytes, of both INFO segments

// Writes requests into the INFO input segment, which every client of the agent shares.
//
// Each request goes through a fresh writer: one that has written before may, by the rules of the
// broadcast segment, overwrite after 2 s what another client has written since; a fresh one only
// writes once the agent has taken the message before. Thread-safe.
class RequestWriter {
public:
    explicit RequestWriter(std::string segmentName) : m_name(std::move(segmentName)) {}

    // True once the request is in the segment: an agent reads it, unless it ends first.
    bool send(const std::string& text, Clock::time_point deadline);

    // Ends a send on another thread, and makes every later one fail.
    void cancel();

private:
    const std::string m_name;
    VDIFrameworkCommon::LocalMutex m_sendMutex;  // one request of this process at a time
    std::atomic<bool> m_cancelled = false;
};

}  // namespace NorvoStreamClient
