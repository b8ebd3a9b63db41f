// What a local process links to exchange messages with the far end of the virtual channel.
//
//     NorvoStreamClient::Client client;
//     auto out = client.openStream("Media", NorvoStreamClient::Direction::Write);
//     const auto done = out->write("hello", 5, std::chrono::seconds(5));
//     if (!done) std::cerr << done.text() << '\n';
//
// The agent that serves the streams lives in the remote-desktop client's process, of the same user
// and the same session namespace (NORVO_VDI_NAMESPACE). It may start, end and come back at any
// time: streams that are open here are asked for again by themselves.
//
// A call that fails says why (Status). Any call answers Closed once its object or client is closed,
// and NoMemory when memory runs out in the system; the other reasons are listed with each call. No
// function throws, except std::bad_alloc where this process has no memory left.
//
// Everything here may be called from several threads at once; the objects may be closed and
// destroyed from any thread but a callback's own.
//
// The client's threads do not live on in a child made by fork(): there its objects can only be
// closed and destroyed, which then leaves everything to the parent. A child that wants a client
// makes one of its own.
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

// News from the agent: its name ("ChannelUp", "StreamUp", "InvalidStreams" ...) and its fields, as
// docs/info-protocol.md lists them.
struct Notification {
    std::string name;
    std::vector<std::string> fields;
};

struct Options {
    // The client name that the agent's process reports; its segments are called after it.
    std::string clientName = "NorvoCrews";
    // Called for every notification, on a thread of the client's own; may use the client and its
    // streams, and take its time (1024 calls may wait, then the oldest is dropped), but not close
    // or destroy the client. What it throws is logged. The first call may come before the
    // constructor has returned. Empty: the notifications wait for nextNotification().
    std::function<void(const Notification&)> onNotification;
    // Called when the two agents find or lose each other, and within a few seconds when this end's
    // agent goes away without a word; on the same thread, with the same rules, except that
    // notifications are dropped before any change: the newest state is always told.
    std::function<void(bool connected)> onConnectionChange;
};

inline constexpr unsigned int kDefaultCapacity = 65536;  // bytes

// One direction of one named stream. Obtained from Client::openStream; may outlive its client, and
// is then closed. Reads on several threads take turns, and so do writes: what is said of a time-out
// holds from the call's turn on. A call may overrun its time-out by up to 2 s while another process
// holds the segment's lock.
//
// Where a call waits for the stream to be up, it fails with what the stream lacked when the time
// was over: NoAgent, NotConnected or NotTakenUp. InUseOtherDirection does not wait for the end of
// time.
class NORVO_STREAM_CLIENT_API Stream {
public:
    ~Stream();
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

    const std::string& name() const;
    Direction direction() const;

    // True while both agents serve the stream and are connected.
    bool isUp() const;
    // Waits until it is. NoAgent, NotConnected, NotTakenUp, InUseOtherDirection.
    Status waitUntilUp(std::chrono::milliseconds timeout);

    // Hands one message of `length` bytes to the agent; an empty message is not sent, and no
    // failure. Waits, up to `timeout` in all, for the stream to be up and for the agent to take
    // what was written before. No failure once the whole message is in the segment. After a failure
    // the message may have been written in part; the reader then drops it. Those of waitUntilUp();
    // Timeout: the agent does not take what was written before; TooLong: more than 512 MiB;
    // InvalidArgument: a Read stream, or no data.
    Status write(const void* data, std::size_t length, std::chrono::milliseconds timeout);

    // Waits until the agent has taken everything that was written since the last flush, so that
    // this process may end. At once done for a Read stream. Timeout; PeerGone: the agent was lost
    // or replaced since the write, which may be lost with it.
    Status flush(std::chrono::milliseconds timeout);

    // Takes the next message, waiting for it up to `timeout`. `message` is empty after a failure.
    // What has come of a message that is not whole yet is kept for the next call.
    // Timeout: the stream is up, and nothing came; those of waitUntilUp(): it is not up, and
    // nothing came; InvalidArgument: a Write stream.
    Status read(std::string& message, std::chrono::milliseconds timeout);

    // Ends waits on other threads; afterwards every call fails. The agent keeps its end.
    void close();

    class __attribute__((visibility("hidden"))) Impl;

private:
    friend class Client;
    explicit Stream(std::shared_ptr<Impl> impl);
    std::shared_ptr<Impl> m_impl;
};

// What opening gave: a stream or connection, or the reason why there is none. It can be used as a
// pointer either way: calls on what could not be opened fail with the reason for that.
template <class Object>
class Opened {
public:
    Opened(std::shared_ptr<Object> object, Status status)
        : m_object(std::move(object)), m_status(status) {}

    explicit operator bool() const { return static_cast<bool>(m_status); }
    const Status& status() const { return m_status; }
    Object* operator->() const { return m_object.get(); }
    Object& operator*() const { return *m_object; }
    // Never null.
    operator const std::shared_ptr<Object>&() const { return m_object; }
    // Closes it, unless it is held elsewhere.
    void reset() { m_object.reset(); }

private:
    std::shared_ptr<Object> m_object;
    Status m_status;
};
using OpenedStream = Opened<Stream>;
using OpenedConnection = Opened<Connection>;

class NORVO_STREAM_CLIENT_API Client {
public:
    // Joins the agent's INFO streams; the agent need not be there yet. Declares this process a
    // client, which never competes with the agent (for the life of the process).
    explicit Client(Options options = {});
    // Closes.
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    // Opens the stream `name` (1 to 64 letters, digits, '-', '_' and '.', the first no '.') with a
    // segment of `capacity` bytes (1 to 64 MiB), and asks the agent for its end; the answer is not
    // waited for.
    // InvalidArgument: the name or capacity is not possible; AlreadyOpen; the segment cannot be set
    // up: CapacityMismatch, NoSpace, NoPermission or SystemError.
    OpenedStream openStream(const std::string& name, Direction direction,
                            unsigned int capacity = kDefaultCapacity);

    // Opens the connection `name` (1 to 59 characters, as a stream's) over the streams `name` and
    // `name`.back, and goes on to look for its other end, where a program must do the opposite
    // (Connection::waitUntilOpen waits for it). The two streams are taken in the direction in which
    // the agents have them already, so either end may connect, also to the same name later.
    // InvalidArgument: the name or an option is not possible; SystemError: no thread can be
    // started.
    OpenedConnection connect(const std::string& name, const ConnectionOptions& options = {});
    OpenedConnection accept(const std::string& name, const ConnectionOptions& options = {});

    // No failure while the agent can be heard if there is one. Otherwise why its segment could not
    // be opened (those of openStream()), which is tried again every second, or SystemError: no
    // thread could be started.
    Status status() const;
    bool isListening() const { return static_cast<bool>(status()); }
    // True while the agents at the two ends are connected, as far as this process has heard.
    bool isConnected() const;
    // NoAgent or NotConnected when `timeout` passed first.
    Status waitUntilConnected(std::chrono::milliseconds timeout);
    // The process ID that the agent reports; 0 while none has been heard of.
    unsigned int agentProcessId() const;

    // Sends one request of the INFO protocol. Its answer, if it has one, is a notification. No
    // failure once an agent has taken it. `timeout` may be overrun by 2 s while other processes ask
    // an agent that has died.
    // NoAgent or Timeout: none took it; TooLong: more than isPossibleRequest() allows;
    // InvalidArgument: no operation.
    Status request(const std::string& operation, const std::vector<std::string>& fields,
                   std::chrono::milliseconds timeout);

    // Whether a request has an operation and fits (10240 bytes with what parts its fields).
    static bool isPossibleRequest(const std::string& operation,
                                  const std::vector<std::string>& fields);

    // The next notification in order, waiting for it up to `timeout`. At most 1024 wait, then the
    // oldest is dropped.
    // Timeout; InvalidArgument: Options::onNotification takes them all.
    Status nextNotification(Notification& notification, std::chrono::milliseconds timeout);

    // Ends every wait, closes the streams and joins the client's threads, which may take as long as
    // the callbacks that are under way and still to come. May be called twice.
    // InvalidArgument: in a callback of the client's own; nothing is closed then.
    Status close();

    class __attribute__((visibility("hidden"))) Impl;

private:
    std::shared_ptr<Impl> m_impl;
};

}  // namespace NorvoStreamClient
