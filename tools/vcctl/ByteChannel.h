// The bytes between two hosts, both ways: what a PacketLink sends its packets over.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <memory>

#include "Descriptor.h"

namespace vcctl {

// One thread reads, one at a time writes, and any interrupts.
class ByteChannel {
public:
    // Throws CommandError when the system has no descriptor left, as the two functions below do.
    ByteChannel();
    virtual ~ByteChannel() = default;
    ByteChannel(const ByteChannel&) = delete;
    ByteChannel& operator=(const ByteChannel&) = delete;

    // As read() and write() of the system: they wait, and the number of bytes may be smaller.
    // read() returns 0 at the end; after interrupt(), neither waits or succeeds.
    virtual ssize_t read(void* bytes, std::size_t size) = 0;
    virtual ssize_t write(const void* bytes, std::size_t size) = 0;
    // Ends both directions. At most once.
    virtual void interrupt();

    // A descriptor that becomes readable with interrupt().
    int interrupted() const { return m_interruption[0].get(); }

private:
    support::Descriptor m_interruption[2];
};

// A connected socket. Of what is written, at most 192 KiB wait in it.
std::unique_ptr<ByteChannel> overSocket(support::Descriptor socket);
// Two descriptors of any kind, as standard input and output are.
std::unique_ptr<ByteChannel> overPipes(support::Descriptor in, support::Descriptor out);

}  // namespace vcctl
