#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "Event.h"
#include "SharedMemoryI.h"

namespace VirtualChannelAgent {

// What an agent needs from the machine it runs on. Thread-safe. Tests substitute their own.
class AgentEnvironment {
public:
    enum class SegmentKind { Plain, Broadcast };

    virtual ~AgentEnvironment() = default;

    // The real machine.
    static std::shared_ptr<AgentEnvironment> system();

    // Wall-clock milliseconds since the epoch.
    virtual std::uint64_t nowMs() = 0;
    virtual void pause(std::chrono::milliseconds duration) = 0;
    // Like event.timedWait(duration).
    virtual bool wait(VDIFrameworkCommon::Event& event, std::chrono::milliseconds duration) = 0;

    // A segment that is not set up yet.
    virtual std::shared_ptr<shared_memory::SharedMemoryI> makeSegment(SegmentKind kind) = 0;

    // Whether a live process other than this one has the segment open. Processes that do not use
    // this framework are not seen.
    virtual bool isSegmentInUseElsewhere(const std::string& /*name*/) { return true; }
    // Call when a segment that the peer has asked for is about to be made, and when it is no longer
    // needed: then it is removed from the system unless a live process has it open.
    virtual void addPeerSegment(const std::string& /*name*/) {}
    virtual void removePeerSegment(const std::string& /*name*/) {}
    // Removes those left behind by killed processes. Returns how many.
    virtual int removeOrphanedPeerSegments() { return 0; }

    // The mark of the one active agent on this machine.
    virtual bool hasOtherActiveAgent() = 0;
    // The ID of the process that has it; 0 when there is none or it is unknown.
    virtual long activeAgentProcess() { return 0; }
    // False when another process has the mark.
    virtual bool markActive() = 0;
    virtual void clearActive() = 0;
    // Ends the watch over that mark which stops and resumes this process's segments.
    virtual void endActivityWatch() = 0;
};

}  // namespace VirtualChannelAgent
