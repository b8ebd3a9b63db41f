// The outcome of the client library's calls: success, or the reason for a failure.
#pragma once

#include <cstddef>
#include <string>

#define NORVO_STREAM_CLIENT_API __attribute__((visibility("default")))

namespace NorvoStreamClient {

// Why a call failed. The numbers are those of the C interface (NorvoStreamClientC.h).
enum class Reason : int {
    None = 0,                 // it did not fail
    Timeout = 1,              // the time-out passed, although nothing else was missing
    InvalidArgument = 3,      // no call with this argument, or on this object, can succeed
    Closed = 4,               // the object, or its client, was closed by this process
    NoAgent = 5,              // no agent answers in this session: no host is running
    NotConnected = 6,         // the agent runs, but is not connected to its peer
    NotTakenUp = 7,           // the peer agent has not taken up the stream
    AlreadyOpen = 8,          // this client already has the stream open
    InUseOtherDirection = 9,  // the agents carry the stream in the other direction
    CapacityMismatch = 10,    // the segment is in use, too small, and cannot grow here
    NoSpace = 11,             // no room for the segment
    NoPermission = 12,        // the segment belongs to somebody else
    TooLong = 13,             // longer than a message or request may be
    PeerGone = 14,            // the peer, or the agent that served the stream, is gone
    Ended = 15,               // the peer has finished; there is nothing more to read
    NoMemory = 16,
    SystemError = 17,  // the system refused; systemError() is the errno
    InUse = 18,        // another program uses it
};

// A sentence without a full stop, for example "no agent answers in this session". Never null.
NORVO_STREAM_CLIENT_API const char* textOf(Reason reason);

// The outcome of a call: true on success, otherwise the reason for the failure.
class NORVO_STREAM_CLIENT_API Status {
public:
    Status() = default;
    Status(Reason reason, int systemError = 0, std::size_t capacity = 0)
        : m_reason(reason), m_systemError(systemError), m_capacity(capacity) {}

    explicit operator bool() const { return m_reason == Reason::None; }
    Reason reason() const { return m_reason; }
    // The errno behind NoSpace, NoPermission and SystemError, where there was one; else 0.
    int systemError() const { return m_systemError; }
    // For CapacityMismatch, the capacity of the existing segment in bytes; else 0.
    std::size_t existingCapacity() const { return m_capacity; }
    // The reason and these details as text.
    std::string text() const;

private:
    Reason m_reason = Reason::None;
    int m_systemError = 0;
    std::size_t m_capacity = 0;
};

}  // namespace NorvoStreamClient
