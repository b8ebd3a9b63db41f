// The wire between two hosts: a TCP connection on which each packet follows its length.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "Descriptor.h"
#include "LocalMutex.h"

namespace vcctl {

// Format: for each packet, its length as an unsigned 32-bit little-endian number, then the packet.
// A length outside [minPacket, maxPacket] ends the connection: the other end is not a host of the
// same kind.
//
// send() writes to the socket on the caller's thread, one system call for the packets of a short
// message or for some 32 KiB of a longer one, and waits while the socket is full. A reader thread
// hands on packets as they come; it is joined in end() or the destructor.
class PacketLink {
public:
    using Receiver = std::function<void(unsigned char* packet, std::uint32_t length)>;

    struct Limits {
        std::uint32_t minPacket;
        std::uint32_t maxPacket;
    };

    // Takes the connected socket over. `receive` runs on the reader thread; the bytes are its own
    // to change during the call. Throws a std::runtime_error where the system has no descriptor or
    // no thread left.
    PacketLink(support::Descriptor socket, Limits limits, Receiver receive);
    ~PacketLink();
    PacketLink(const PacketLink&) = delete;
    PacketLink& operator=(const PacketLink&) = delete;

    // Sends one packet, at the latest with the packet of its message that leaves last. Waits while
    // the peer takes nothing: up to 256 KiB are on their way in either system then, and no more.
    // False once the link is closed, which also ends the waiting. Any thread.
    bool send(const void* packet, std::uint32_t length);

    // Whether a whole packet has come: a stranger's connection may stay silent for ever.
    bool hasReceived() const { return m_hasReceived.load(std::memory_order_relaxed); }

    // Ends the link for `reason` (the first one counts). Any thread, also from inside `receive`.
    void close(const std::string& reason);

    // Closes, and returns when `receive` is not called any more. Not from inside `receive`.
    void end(const std::string& reason);

    // A descriptor that becomes readable when the link has ended.
    int closedDescriptor() const { return m_closedPipe[0].get(); }
    std::string closeReason() const;

private:
    void readLoop(const Receiver& receive);
    // Hands on the whole packets at the start of `bytes`; how many bytes that was.
    std::size_t deliver(unsigned char* bytes, std::size_t size, const Receiver& receive);
    // Waits while the socket is full. False once the link is closed.
    bool sendGathered() NORVO_REQUIRES(m_sending);

    const Limits m_limits;
    support::Descriptor m_socket;
    support::Descriptor m_closedPipe[2];

    std::atomic<bool> m_hasReceived = false;

    // Held while the socket is full: close() must not need it.
    VDIFrameworkCommon::LocalMutex m_sending;
    std::vector<unsigned char> m_gathered NORVO_GUARDED_BY(m_sending);

    mutable VDIFrameworkCommon::LocalMutex m_mutex;
    std::string m_reason NORVO_GUARDED_BY(m_mutex);
    std::atomic<bool> m_closed = false;

    std::thread m_reader;
};

}  // namespace vcctl
