#pragma once

#include <string>

namespace VirtualChannelAgent {

// Records the segments that this process has made at the peer's request, and outlives it. If it is
// killed, the next agent of the user and session namespace removes them; otherwise the peer could
// fill the system's memory with ever new names. A segment that a live process has open is not
// removed. Thread-safe; the record's contents are not trusted.
class PeerSegmentRecord {
public:
    // Call when the segment is about to be made.
    static void add(const std::string& name);
    // Call when it is no longer needed: removes it from the system, then from the record.
    static void remove(const std::string& name);
    // Does so for processes that have ended. Returns how many segments were removed.
    static int removeLeftovers();
};

}  // namespace VirtualChannelAgent
