// The wire between two hosts: a TCP connection on which each packet follows its length.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Descriptor.h"

namespace vcctl {

// Format: for each packet, its length as an unsigned 32-bit little-endian number, then the packet.
// A length outside [minPacket, maxPacket] ends the connection: the other end is not a host of the
// same kind.
//
// A writer thread sends whatever is waiting with one system call; a reader thread hands on packets
// as they come. Both end, and are joined, in end() or the destructor.
class PacketLink {
public:
    using Receiver = std::function<void(unsigned char* packet, std::uint32_t length)>;

    struct Limits {
        std::uint32_t minPacket;
        std::uint32_t maxPacket;
    };

    // Takes the connected socket over. `receive` runs on the reader thread; the bytes are its own
    // to change during the call.
    PacketLink(support::Descriptor socket, Limits limits, Receiver receive);
    ~PacketLink();
    PacketLink(const PacketLink&) = delete;
    PacketLink& operator=(const PacketLink&) = delete;

    // Queues one packet. Waits while more than 8 MiB wait already, so that a slow peer slows the
    // sender and does not fill the memory. False once the link is closed. Any thread.
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
    void writeLoop();
    void readLoop(const Receiver& receive);
    // Hands on the whole packets at the start of `bytes`; how many bytes that was.
    std::size_t deliver(unsigned char* bytes, std::size_t size, const Receiver& receive);
    bool sendAll(const unsigned char* bytes, std::size_t size);

    const Limits m_limits;
    support::Descriptor m_socket;
    support::Descriptor m_closedPipe[2];

    std::atomic<bool> m_hasReceived = false;

    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<unsigned char> m_waiting;
    std::atomic<bool> m_closed = false;  // written under the mutex
    std::string m_reason;

    std::thread m_writer;
    std::thread m_reader;
};

}  // namespace vcctl
