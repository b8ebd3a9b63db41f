// Client library for local processes: exchanges messages with the peer across the virtual channel.
//
//     NorvoStreamClient::Client client;
//     auto out = client.openStream("Media", NorvoStreamClient::Direction::Write);
//     const auto done = out->write("hello", 5, std::chrono::seconds(5));
//     if (!done) std::cerr << done.text() << '\n';
//
// The agent that serves the streams runs in the remote-desktop client's process, for the same user
// and session namespace (NORVO_VDI_NAMESPACE). It may start, exit and restart at any time: open
// streams are requested again automatically.
//
// A failed call returns the reason (Status). Any call may return Closed, once its object or client
// is closed, and NoMemory, when the system is out of memory; the other reasons are listed with each
// call. No function throws, except std::bad_alloc when this process is out of memory. A time-out
// below 0 counts as 0; std::chrono::milliseconds::max() is no limit.
//
// Everything here is thread-safe. Objects may be closed and destroyed on any thread except a
// client's callback thread.
//
// The client's threads do not survive fork(). In the child, inherited objects can only be closed
// and destroyed, which does not affect the parent. A child that needs a client creates its own.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "NorvoStreamClientStatus.h"
#include "NorvoStreamConnection.h"

namespace NorvoStreamClient {

// What the caller does with the stream.
enum class Direction { Read, Write };

// A notification from the agent: its name ("ChannelUp", "StreamUp", "InvalidStreams" ...) and its
// fields, as listed in docs/info-protocol.md.
struct Notification {
    std::string name;
    std::vector<std::string> fields;
};

struct Options {
    // The client name that the agent's process reports; the INFO segments are named after it.
    std::string clientName = "NorvoCrews";
    // Called for every notification, on the client's callback thread. May use the client and its
    // streams, but not close or destroy the client. May be slow: up to 1024 calls are queued, then
    // the oldest is dropped. Exceptions are logged. The first call may come before the constructor
    // has returned. Empty: notifications are queued for nextNotification().
    std::function<void(const Notification&)> onNotification;
    // Called when the two agents connect or disconnect, and within a few seconds when the local
    // agent disappears without notice. Same thread and rules, except that queued notifications are
    // dropped before any change: the latest state is always reported.
    std::function<void(bool connected)> onConnectionChange;
};

// Lets the library choose a segment's capacity: 1 MiB where segments can grow (Linux), the system
// has room for a thousand such ones, and the client has fewer than 16 streams; otherwise 65536
// bytes.
inline constexpr unsigned int kDefaultCapacity = 0;

// One direction of one named stream, from Client::openStream. May outlive its client, and is then
// closed. Reads on several threads take turns, and so do writes; the wait for a turn is not bounded
// by the time-out. A call may exceed its time-out by up to 2 s while another process holds the
// segment's lock.
//
// A call that waits for the stream to be up fails with what the stream lacks at the time-out:
// NoAgent, NotConnected or NotTakenUp. InUseOtherDirection is returned at once.
class NORVO_STREAM_CLIENT_API Stream {
public:
    ~Stream();
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

    const std::string& name() const;
    Direction direction() const;

    // True while both agents serve the stream and are connected.
    bool isUp() const;
    // Waits until isUp(). NoAgent, NotConnected, NotTakenUp, InUseOtherDirection.
    Status waitUntilUp(std::chrono::milliseconds timeout);

    // Hands one message of `length` bytes to the agent. An empty message is not sent; returns
    // success. Waits up to `timeout` in total for the stream to be up and for the agent to take
    // earlier data. Succeeds once the whole message is in the segment. After a failure part of the
    // message may have been written; the reader drops it.
    // Errors of waitUntilUp(); Timeout: the agent does not take earlier data; TooLong: more than
    // 512 MiB; InvalidArgument: a Read stream, or null `data`.
    Status write(const void* data, std::size_t length, std::chrono::milliseconds timeout);

    // Waits until the agent has taken everything written since the last flush; this process may
    // then exit. Returns at once for a Read stream.
    // Timeout; PeerGone: the agent was lost or replaced since the write, whose data may be lost.
    Status flush(std::chrono::milliseconds timeout);

    // Takes the next message, waiting up to `timeout`. `message` is empty after a failure. A partly
    // received message is kept for the next call.
    // Timeout: the stream is up, but no message arrived; errors of waitUntilUp(): it is not up, and
    // no message arrived; InvalidArgument: a Write stream.
    Status read(std::string& message, std::chrono::milliseconds timeout);

    // Ends waits on other threads; every later call fails. The agent's end stays open.
    void close();

    class __attribute__((visibility("hidden"))) Impl;

private:
    friend class Client;
    explicit Stream(std::shared_ptr<Impl> impl);
    std::shared_ptr<Impl> m_impl;
};

// The result of opening a stream or connection: the object, or the reason for the failure. Usable
// as a pointer either way: after a failure every call returns that reason.
template <class Object>
class Opened {
public:
    Opened(std::shared_ptr<Object> object, Status status)
        : m_object(std::move(object)), m_status(status) {}

    explicit operator bool() const { return static_cast<bool>(m_status); }
    const Status& status() const { return m_status; }
    Object* operator->() const { return m_object.get(); }
    Object& operator*() const { return *m_object; }
    // Never null before reset().
    operator const std::shared_ptr<Object>&() const { return m_object; }
    // Closes the object, unless it is held elsewhere. Afterwards there is none.
    void reset() { m_object.reset(); }

private:
    std::shared_ptr<Object> m_object;
    Status m_status;
};
using OpenedStream = Opened<Stream>;
using OpenedConnection = Opened<Connection>;

class NORVO_STREAM_CLIENT_API Client {
public:
    // Joins the agent's INFO streams; the agent need not run yet. Declares this process a client,
    // which never competes with the agent, for the life of the process.
    explicit Client(Options options = {});
    // Closes.
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    // Opens the stream `name` (1 to 64 letters, digits, '-', '_' and '.', not starting with '.')
    // with a segment of `capacity` bytes (1 byte to 64 MiB, or kDefaultCapacity), and asks the
    // agent to open its end, without waiting for the answer. A message longer than the capacity
    // crosses the segment in several parts, which takes longer.
    // InvalidArgument: invalid name, direction or capacity; AlreadyOpen; CapacityMismatch, NoSpace,
    // NoPermission or SystemError: the segment cannot be set up.
    OpenedStream openStream(const std::string& name, Direction direction,
                            unsigned int capacity = kDefaultCapacity);

    // Opens the connection `name` (1 to 59 characters, as for a stream) over the streams `name` and
    // `name`.back. Its peer makes the opposite call; Connection::waitUntilOpen waits for that. Two
    // ends that both connect join, too, unless neither finds the streams of the other
    // (InUseOtherDirection).
    // The two streams keep the direction in which the agents already carry them, so either end may
    // connect, also when the name is reused.
    // InvalidArgument: invalid name or option; SystemError: no thread can be started. What else
    // fails, as a second connection of this name in this client (AlreadyOpen), is found later.
    OpenedConnection connect(const std::string& name, const ConnectionOptions& options = {});
    OpenedConnection accept(const std::string& name, const ConnectionOptions& options = {});

    // Success while notifications can be received, whether or not an agent runs. Otherwise why the
    // agent's segment could not be opened (errors of openStream()), which is retried every second,
    // or SystemError: no thread could be started.
    Status status() const;
    bool isListening() const { return static_cast<bool>(status()); }
    // True while the two agents are connected, as far as this process knows.
    bool isConnected() const;
    // NoAgent or NotConnected at the time-out.
    Status waitUntilConnected(std::chrono::milliseconds timeout);
    // The process ID that the agent reports; 0 while unknown.
    unsigned int agentProcessId() const;

    // Sends one request of the INFO protocol. The answer, if any, is a notification. Succeeds once
    // an agent has taken the request. May exceed `timeout` by 2 s while other processes send
    // requests to a dead agent.
    // NoAgent or Timeout: no agent took it; TooLong: longer than isPossibleRequest() allows;
    // InvalidArgument: empty operation.
    Status request(const std::string& operation, const std::vector<std::string>& fields,
                   std::chrono::milliseconds timeout);

    // Whether the operation is not empty and the request fits (10240 bytes, field separators
    // included).
    static bool isPossibleRequest(const std::string& operation,
                                  const std::vector<std::string>& fields);

    // Takes the next notification, waiting up to `timeout`. At most 1024 are queued, then the
    // oldest is dropped.
    // Timeout; InvalidArgument: Options::onNotification is set.
    Status nextNotification(Notification& notification, std::chrono::milliseconds timeout);

    // Ends every wait, closes the streams and joins the client's threads, once all running and
    // queued callbacks have returned. May be called repeatedly.
    // InvalidArgument: called from one of the client's callbacks; nothing is closed.
    Status close();

    class __attribute__((visibility("hidden"))) Impl;

private:
    std::shared_ptr<Impl> m_impl;
};

}  // namespace NorvoStreamClient
