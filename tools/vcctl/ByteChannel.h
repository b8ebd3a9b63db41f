// The byte transport between two hosts, in both directions, that a PacketLink uses.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <memory>

#include "Descriptor.h"

namespace vcctl {

// One thread may read and one at a time may write; any thread may interrupt.
class ByteChannel {
public:
    // Throws CommandError when out of descriptors, as do the two functions below.
    ByteChannel();
    virtual ~ByteChannel() = default;
    ByteChannel(const ByteChannel&) = delete;
    ByteChannel& operator=(const ByteChannel&) = delete;

    // Like the system's read() and write(): they block, and may transfer fewer bytes.
    // read() returns 0 at the end; after interrupt(), neither waits or succeeds.
    virtual ssize_t read(void* bytes, std::size_t size) = 0;
    virtual ssize_t write(const void* bytes, std::size_t size) = 0;
    // Ends both directions. Call at most once.
    virtual void interrupt();

    // A descriptor that becomes readable upon interrupt().
    int interrupted() const { return m_interruption[0].get(); }

private:
    support::Descriptor m_interruption[2];
};

// A connected socket. It buffers at most 192 KiB of outgoing data.
std::unique_ptr<ByteChannel> overSocket(support::Descriptor socket);
// Two descriptors of any kind, such as standard input and output.
std::unique_ptr<ByteChannel> overPipes(support::Descriptor in, support::Descriptor out);

}  // namespace vcctl
