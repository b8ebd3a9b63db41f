#pragma once

#include <string>

namespace VirtualChannelAgent {

// The segments that this process has made at the far side's wish, in a record that outlives it: if
// it is killed, the next agent of the user and session namespace removes them, as the far side
// could otherwise fill the system's memory with ever new names. No segment is removed that a living
// process has open. Thread-safe; the record's words are read as anyone's who can write there.
class PeerSegmentRecord {
public:
    // The segment is about to be made.
    static void add(const std::string& name);
    // It is not needed any more: removes it from the system, and then from the record.
    static void remove(const std::string& name);
    // Does so with those of processes that have ended. How many are gone.
    static int removeLeftovers();
};

}  // namespace VirtualChannelAgent
