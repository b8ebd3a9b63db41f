// One direction of messages between two processes: what our segments do, and the simplest things
// that do the same. One interface, so that all run through the same measurements (HopBench.cpp).
//
// A kind joins by a registrar in its .cpp:
//
//     static const HopKindRegistrar entry("futex, parks", openFutexParks);
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace bench {

// Used by one thread in each process. Failures, and a peer that stays silent for kHopPatienceMs,
// throw std::runtime_error.
class Hop {
public:
    virtual ~Hop() = default;
    virtual void send(const void* data, std::size_t length) = 0;
    // Fills `message`, which comes with the length that the sender will send. An implementation may
    // put its own buffer in its place.
    virtual void receive(std::string& message) = 0;
    // Called in the creating process once the other one has opened its end.
    virtual void peerHasJoined() {}
};

inline constexpr int kHopPatienceMs = 5000;

struct HopEnd {
    std::string name;      // the same in both processes; already carries the session namespace
    std::size_t capacity;  // of a slot, in bytes; longer messages go in chunks
    bool writes;           // else reads
    bool creates;          // the creating process comes first and removes what it made
};

using OpenHop = std::unique_ptr<Hop> (*)(const HopEnd& end);

struct HopKind {
    const char* name;
    OpenHop open;
};

// Every registered kind, by name.
const std::vector<HopKind>& hopKinds();
// Null when there is none of that name.
const HopKind* findHopKind(const std::string& name);

struct HopKindRegistrar {
    HopKindRegistrar(const char* name, OpenHop open);
};

// Throws std::runtime_error with `what` and the text of errno.
[[noreturn]] void throwSystemError(const char* what);

}  // namespace bench
