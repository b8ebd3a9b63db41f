// One direction of messages between two processes: our segments and the simplest
// alternatives. One interface, so that all run through the same measurements (HopBench.cpp).
//
// A kind is registered by a registrar in its .cpp:
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
    // Fills `message`, whose length the caller has set to that of the sent message. An
    // implementation may replace its buffer.
    virtual void receive(std::string& message) = 0;
    // Called in the creating process once the peer has opened its end.
    virtual void peerHasJoined() {}
};

inline constexpr int kHopPatienceMs = 5000;

struct HopEnd {
    std::string name;      // the same in both processes; already carries the session namespace
    std::size_t capacity;  // of a slot, in bytes; longer messages go in chunks
    bool writes;           // else reads
    bool creates;          // the creating process comes first and removes what it created
};

using OpenHop = std::unique_ptr<Hop> (*)(const HopEnd& end);

struct HopKind {
    const char* name;
    OpenHop open;
};

// Every registered kind, by name.
const std::vector<HopKind>& hopKinds();
// Null if there is none of that name.
const HopKind* findHopKind(const std::string& name);

struct HopKindRegistrar {
    HopKindRegistrar(const char* name, OpenHop open);
};

// Throws std::runtime_error with `what` and the text of errno.
[[noreturn]] void throwSystemError(const char* what);

}  // namespace bench
