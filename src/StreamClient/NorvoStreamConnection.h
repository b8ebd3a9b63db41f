// A connection between two local processes, one at each end of the virtual channel: a reliable,
// ordered byte stream in both directions.
//
//     auto file = client.connect("Media");      // and client.accept("Media") at the peer
//     auto done = file->write(data, size, 30s);
//     if (done) done = file->finish();
//     if (done) done = file->flush(30s);        // the peer has it all
//
// The peer:
//
//     std::size_t length = 0;
//     auto got = NorvoStreamClient::Status();
//     while ((got = file->read(buffer, sizeof buffer, length, 30s))) use(buffer, length);
//     if (got.reason() != NorvoStreamClient::Reason::Ended) std::cerr << got.text() << '\n';
//     // It may close at once: what it has read counts as received.
//
// A stream drops messages when its reader is too slow or the session breaks; a connection resends
// them, and its writer waits for its reader. docs/connections.md describes the protocol.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "NorvoStreamClientStatus.h"

namespace NorvoStreamClient {

struct ConnectionOptions {
    // Bytes of each of the two streams' segments: 128 to 64 MiB. Also limits a frame, which is at
    // most 64 KiB. The ends may differ.
    unsigned int capacity = 65536;
    // Bytes buffered in this process, in each direction: 64 KiB to 64 MiB. The peer never has more
    // in flight than this end has room for.
    std::size_t window = 4u << 20;
    // How long the peer may be silent while the streams are up before it is considered gone. It
    // sends a heartbeat every 2 s. At least 5 s.
    std::chrono::milliseconds peerTimeout{20000};
    // How long the streams may be down once the connection has been open.
    std::chrono::milliseconds outage{60000};
};

// Obtained from Client::connect or Client::accept. May outlive its client, and is then closed.
// Thread-safe; one thread may write while another reads.
//
// A failure is final. Calls then return the reason:
// PeerGone: the peer process exited, restarted, was silent for too long, or closed the connection
// before both directions were finished; NoAgent, NotConnected or NotTakenUp: the streams were down
// for too long; InUseOtherDirection: the two streams' directions do not form a usable pair, as when
// both ends connect at the same moment although neither stream exists yet (let one end accept; the
// name is usable again when nobody has had it open for a minute); InUse: another program in this
// session has a connection of this name open; Closed; errors of Client::openStream: a stream could
// not be opened. Data received before the failure can still be read.
//
// A call that times out returns Timeout, or what the streams lack at present (NoAgent,
// NotConnected, NotTakenUp): the connection continues, and status() reports no failure.
class NORVO_STREAM_CLIENT_API Connection {
public:
    // Closes.
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    const std::string& name() const;

    // Success while the connection is open or may still open.
    Status status() const;
    // Waits until the peer has connected.
    // Timeout: the streams are up, but no peer appeared.
    Status waitUntilOpen(std::chrono::milliseconds timeout);

    // Accepts `length` bytes for sending, waiting up to `timeout` for room; the connection need not
    // be open yet. `*accepted`, if given, is set to the number of bytes accepted, also after a
    // failure.
    // Timeout: the peer has not taken enough of the earlier data; InvalidArgument: after finish(),
    // or null `data`.
    Status write(const void* data, std::size_t length, std::chrono::milliseconds timeout,
                 std::size_t* accepted = nullptr);
    // Ends this direction: the peer reads Ended after the last byte. The other direction stays
    // open.
    Status finish();
    // Waits until the peer process has everything that was written, including the end. Succeeds,
    // too, when the peer has read it all and closed.
    Status flush(std::chrono::milliseconds timeout);
    // How many of the written bytes the peer process has.
    std::uint64_t acknowledged() const;

    // Reads 1 to `size` bytes, waiting up to `timeout` for the first; `length` is set to their
    // number.
    // Ended: the peer has finished, and everything was read; InvalidArgument: null or empty buffer.
    Status read(void* buffer, std::size_t size, std::size_t& length,
                std::chrono::milliseconds timeout);

    // Ends waits on other threads; every later call fails. The peer fails with PeerGone unless both
    // directions are finished and everything has arrived. Takes up to 1 s.
    void close();

    class __attribute__((visibility("hidden"))) Impl;

private:
    explicit Connection(std::shared_ptr<Impl> impl);
    std::shared_ptr<Impl> m_impl;
};

}  // namespace NorvoStreamClient
