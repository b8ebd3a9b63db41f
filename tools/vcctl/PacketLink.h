// The wire between two hosts: only packets, which carry their own length.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ByteChannel.h"
#include "LocalMutex.h"

namespace vcctl {

// Bytes that cannot belong to a packet end the connection: the peer is not a host of the same kind.
//
// send() writes on the caller's thread, with one system call for the packets of a short message or
// for some 32 to 48 KiB of a longer one, and blocks while the peer takes nothing. A reader thread
// passes on packets as they come; it is joined in end() or the destructor.
class PacketLink {
public:
    using Receiver = std::function<void(unsigned char* packet, std::uint32_t length)>;

    // `maxPacket`: the channel's largest packet. `receive` runs on the reader thread, and may
    // change the bytes during the call. Throws std::system_error when out of threads.
    PacketLink(std::unique_ptr<ByteChannel> bytes, std::uint32_t maxPacket, Receiver receive);
    ~PacketLink();
    PacketLink(const PacketLink&) = delete;
    PacketLink& operator=(const PacketLink&) = delete;

    // Sends one packet, at the latest with the last packet of its message. Blocks while the peer
    // takes nothing: at most 192 KiB are buffered in either system then.
    // False once the link is closed, which also ends the wait. One thread at a time.
    bool send(const void* packet, std::uint32_t length);

    // Ends the link for `reason` (the first one counts). Any thread, also from inside `receive`.
    void close(const std::string& reason);

    // Closes, and returns when `receive` will not be called again. Not from inside `receive`.
    void end(const std::string& reason);

    // A descriptor that becomes readable when the link has ended.
    int closedDescriptor() const { return m_bytes->interrupted(); }
    std::string closeReason() const;
    // Ended by what was no packet of this kind of host.
    bool sawForeignBytes() const { return m_sawForeignBytes; }

private:
    void readLoop(std::uint32_t maxPacket, const Receiver& receive);
    // Blocks while the peer takes nothing. False once the link is closed.
    bool sendGathered();

    const std::unique_ptr<ByteChannel> m_bytes;

    std::vector<unsigned char> m_gathered;

    mutable VDIFrameworkCommon::LocalMutex m_mutex;
    std::string m_reason NORVO_GUARDED_BY(m_mutex);
    std::atomic<bool> m_closed = false;
    std::atomic<bool> m_sawForeignBytes = false;

    std::thread m_reader;
};

}  // namespace vcctl
