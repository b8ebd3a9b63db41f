// What a local process links to exchange messages with the far end of the virtual channel.
//
//     NorvoStreamClient::Client client;
//     auto out = client.openStream("Media", NorvoStreamClient::Direction::Write);
//     if (!out || !out->write("hello", 5, std::chrono::seconds(5))) return 1;
//
// The agent that serves the streams lives in the remote-desktop client's process, of the same user
// and the same session namespace (NORVO_VDI_NAMESPACE). It may start, end and come back at any
// time: streams that are open here are asked for again by themselves.
//
// No function throws. Everything here may be called from several threads at once; the objects may
// be closed and destroyed from any thread but a callback's own.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#define NORVO_STREAM_CLIENT_API __attribute__((visibility("default")))

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
    // or destroy the client. The first call may come before the constructor has returned. Empty:
    // the notifications wait for nextNotification().
    std::function<void(const Notification&)> onNotification;
    // Called when the two agents find or lose each other, and within a few seconds when this end's
    // agent goes away without a word; on the same thread and with the same limits.
    std::function<void(bool connected)> onConnectionChange;
};

inline constexpr unsigned int kDefaultCapacity = 65536;  // bytes

// One direction of one named stream. Obtained from Client::openStream; may outlive its client, and
// is then closed. Reads on several threads take turns, and so do writes: what is said of a timeout
// holds from the call's turn on.
class NORVO_STREAM_CLIENT_API Stream {
public:
    ~Stream();
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

    const std::string& name() const;
    Direction direction() const;

    // True while both agents serve the stream and are connected.
    bool isUp() const;
    // Waits until it is. False when `timeout` passed first, or the stream was closed.
    bool waitUntilUp(std::chrono::milliseconds timeout);

    // Hands one message of `length` bytes (an empty one is nothing, and true) to the agent. Waits,
    // up to `timeout` in all, for the stream to be up and for the agent to take what was written
    // before. True when the whole message is in the segment. After false the message may have been
    // written in part; the reader then drops it. Always false for a Read stream.
    bool write(const void* data, std::size_t length, std::chrono::milliseconds timeout);

    // Waits until the agent has taken everything that was written, so that this process may end.
    // False when `timeout` (which may be overrun by 2 s while another process holds the segment)
    // passed first, or the stream was closed. At once true for a Read stream.
    bool flush(std::chrono::milliseconds timeout);

    // Takes the next message, waiting for it up to `timeout`. False, with `message` empty, when
    // none came, the stream was closed, or it is a Write stream. What has come of a message that is
    // not whole yet is kept for the next call.
    bool read(std::string& message, std::chrono::milliseconds timeout);

    // Ends waits on other threads; afterwards every call answers false. The agent keeps its end.
    void close();

    class __attribute__((visibility("hidden"))) Impl;

private:
    friend class Client;
    explicit Stream(std::shared_ptr<Impl> impl);
    std::shared_ptr<Impl> m_impl;
};

class NORVO_STREAM_CLIENT_API Client {
public:
    // Joins the agent's INFO streams; the agent need not be there yet. Declares this process a
    // client, which never competes with the agent (for the life of the process).
    explicit Client(Options options = {});
    // Closes.
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    // Opens the stream `name` (1 to 64 letters, digits, '-', '_' and '.') with a segment of
    // `capacity` bytes (1 to 64 MiB), and asks the agent for its end; the answer is not waited for.
    // Both ends of a segment must give the same capacity. Empty when the name or capacity is not
    // possible, the segment cannot be made (see the log), this client has the stream open already,
    // or it is closed.
    std::shared_ptr<Stream> openStream(const std::string& name, Direction direction,
                                       unsigned int capacity = kDefaultCapacity);

    // False when the agent cannot be heard, because its segment could not be opened or no thread
    // be started: the log says why.
    bool isListening() const;
    // True while the agents at the two ends are connected, as far as this process has heard.
    bool isConnected() const;
    bool waitUntilConnected(std::chrono::milliseconds timeout);
    // The process ID that the agent reports; 0 while none has been heard of.
    unsigned int agentProcessId() const;

    // Sends one request of the INFO protocol. Its answer, if it has one, is a notification. False
    // when no agent took it within `timeout` (which may be overrun by 2 s while other processes ask
    // an agent that has died), or when it is not possible.
    bool request(const std::string& operation, const std::vector<std::string>& fields,
                 std::chrono::milliseconds timeout);

    // Whether a request has an operation and fits (10240 bytes with what parts its fields).
    static bool isPossibleRequest(const std::string& operation,
                                  const std::vector<std::string>& fields);

    // The next notification in order, waiting for it up to `timeout`. At most 1024 wait, then the
    // oldest is dropped. Not with Options::onNotification, which takes them all.
    bool nextNotification(Notification& notification, std::chrono::milliseconds timeout);

    // Ends every wait, closes the streams and joins the client's threads, which may take as long as
    // the callbacks that are under way and still to come. May be called twice.
    void close();

    class __attribute__((visibility("hidden"))) Impl;

private:
    std::shared_ptr<Impl> m_impl;
};

}  // namespace NorvoStreamClient
