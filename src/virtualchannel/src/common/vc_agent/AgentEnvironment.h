#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "Event.h"
#include "SharedMemoryI.h"

namespace VirtualChannelAgent {

// What an agent needs of the machine it runs on. Thread-safe. Tests put a machine of their own in
// its place.
class AgentEnvironment {
public:
    enum class SegmentKind { Plain, Broadcast };

    virtual ~AgentEnvironment() = default;

    // The real machine.
    static std::shared_ptr<AgentEnvironment> system();

    // Wall-clock milliseconds since the epoch.
    virtual std::uint64_t nowMs() = 0;
    virtual void pause(std::chrono::milliseconds duration) = 0;
    // As event.timedWait(duration).
    virtual bool wait(VDIFrameworkCommon::Event& event, std::chrono::milliseconds duration) = 0;

    // A segment that is not set up yet.
    virtual std::shared_ptr<shared_memory::SharedMemoryI> makeSegment(SegmentKind kind) = 0;

    // Whether a living process other than this one has the segment open. One that does not use this
    // framework is not seen.
    virtual bool isSegmentInUseElsewhere(const std::string& /*name*/) { return true; }
    // A segment that the far side has asked for is about to be made, or is not needed any more:
    // then it is removed from the system unless a living process has it open.
    virtual void addPeerSegment(const std::string& /*name*/) {}
    virtual void removePeerSegment(const std::string& /*name*/) {}
    // Removes those that processes left behind which were killed. How many.
    virtual int removePeerSegmentsOfTheDead() { return 0; }

    // The mark of the one agent that is active on this machine.
    virtual bool hasOtherActiveAgent() = 0;
    // The process that has it; 0 when there is none, or its ID is not known.
    virtual long activeAgentProcess() { return 0; }
    // False when another process has the mark.
    virtual bool markActive() = 0;
    virtual void clearActive() = 0;
    // Ends the watch over that mark which stops and resumes this process's segments.
    virtual void endActivityWatch() = 0;
};

}  // namespace VirtualChannelAgent
