// A connection between two local processes, one at each end of the virtual channel: bytes that
// arrive whole and in order, in both directions.
//
//     auto file = client.connect("Media");      // and client.accept("Media") at the other end
//     auto done = file->write(data, size, 30s);
//     if (done) done = file->finish();
//     if (done) done = file->flush(30s);        // the other end has it all
//
// A stream drops messages when its reader is too slow or the session breaks; a connection sends
// them again, and its writer waits for its reader. docs/connections.md has its protocol.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "NorvoStreamClientStatus.h"

namespace NorvoStreamClient {

struct ConnectionOptions {
    // Of the two streams' segments, in bytes: 128 to 64 MiB. A frame, at most 64 KiB, is never
    // longer. Each end may have its own.
    unsigned int capacity = 65536;
    // Bytes that wait in this process at most, in each direction: 64 KiB to 64 MiB. The other end
    // never has more under way than what this end has room for.
    std::size_t window = 4u << 20;
    // How long the other end may be silent while the streams are up; then it counts as gone. It
    // shows that it is there every 2 s. At least 5 s.
    std::chrono::milliseconds peerTimeout{20000};
    // How long the streams may be down once the connection was open.
    std::chrono::milliseconds outage{60000};
};

// Obtained from Client::connect or Client::accept. May outlive its client, and is then closed.
// Thread-safe; one thread may write while another reads.
//
// A connection that has failed stays so. Calls then answer why: PeerGone: the other end's process
// has ended, closed the connection before both directions were finished, started anew, or was
// silent for too long; NoAgent, NotConnected or NotTakenUp: the streams were down for too long;
// InUseOtherDirection: the pair of streams lies in no direction in which it could be used; InUse:
// another program of this session has a connection of this name open; Closed; the reasons of
// Client::openStream: a stream could not be opened. What had come before can still be read.
//
// A call whose time is over answers Timeout, or what the streams lack at present (NoAgent,
// NotConnected, NotTakenUp): the connection goes on then, and status() tells no failure.
class NORVO_STREAM_CLIENT_API Connection {
public:
    // Closes.
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    const std::string& name() const;

    // No failure while the connection is open or may still open.
    Status status() const;
    // Waits until both ends have met. Timeout: the streams are up, and nobody came at the other
    // end.
    Status waitUntilOpen(std::chrono::milliseconds timeout);

    // Takes over `length` bytes, waiting up to `timeout` for room; the connection need not be open
    // yet. `*accepted`, if given, is how many bytes were taken over in any case.
    // Timeout: the other end has not taken enough of what was written before; InvalidArgument:
    // after finish(), or no data.
    Status write(const void* data, std::size_t length, std::chrono::milliseconds timeout,
                 std::size_t* accepted = nullptr);
    // Ends this direction: the other end reads Ended after the last byte. The other direction goes
    // on.
    Status finish();
    // Waits until the other end's process has everything that was written, the end included.
    Status flush(std::chrono::milliseconds timeout);
    // How many of the bytes written the other end's process has.
    std::uint64_t acknowledged() const;

    // Takes 1 to `size` bytes, waiting up to `timeout` for the first; `length` says how many.
    // Ended: the other end has finished, and all of it was read; InvalidArgument: no room.
    Status read(void* buffer, std::size_t size, std::size_t& length,
                std::chrono::milliseconds timeout);

    // Ends waits on other threads; afterwards every call fails. Unless both directions are finished
    // and everything has arrived, the other end fails with PeerGone. Takes up to 1 s.
    void close();

    class __attribute__((visibility("hidden"))) Impl;

private:
    explicit Connection(std::shared_ptr<Impl> impl);
    std::shared_ptr<Impl> m_impl;
};

}  // namespace NorvoStreamClient
