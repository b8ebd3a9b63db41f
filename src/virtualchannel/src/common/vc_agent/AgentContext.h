#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "AgentEnvironment.h"
#include "InfoSegments.h"
#include "LockOrder.h"
#include "Log.h"
#include "StreamType.h"
#include "VCMessage.h"
#include "VDIClientInfo.h"
#include "VirtualChannelAgent.h"

namespace VirtualChannelAgent {

// This side's version of the agents' protocol.
inline constexpr char kChannelVersion[] = "1.0.679.0";

using StreamPtr = std::shared_ptr<Agent::Stream>;

// A stream as described in messages.
struct StreamDetails {
    std::string name;
    StreamType type = StreamType::INVALID;
    unsigned int size = 0;  // bytes
};

// What the parts of one agent share, and the calls they may make to each other without depending on
// each other. Any thread.
class AgentContext {
public:
    AgentContext(const std::string& name, std::shared_ptr<AgentEnvironment> machine)
        : logPrefix(name + " - "),
          environment(machine ? std::move(machine) : AgentEnvironment::system()),
          infoOutputName(VDIFrameworkCommon::infoNotificationsName(clientName())),
          infoInputName(VDIFrameworkCommon::infoRequestsName(clientName())) {}
    virtual ~AgentContext() = default;
    AgentContext(const AgentContext&) = delete;
    AgentContext& operator=(const AgentContext&) = delete;

    const std::string logPrefix;
    const std::shared_ptr<AgentEnvironment> environment;
    const std::string infoOutputName;  // the agent writes, local processes read
    const std::string infoInputName;   // local processes write, the agent reads

    // Names the active agent's process, for log lines about another active agent.
    std::string activeAgent() const {
        const long process = environment->activeAgentProcess();
        return process == 0 ? std::string() : " It is process " + std::to_string(process) + '.';
    }

    // Set first when the agent ends: nothing new begins after that.
    std::atomic<bool> stopping{false};
    // The handshake is done. Written by ConnectionState only.
    std::atomic<bool> connected{false};
    // Of the messages that wait for local processes or are being written for them.
    std::atomic<std::size_t> queuedBytes{0};

    // ---- The peer

    // The observed channel; null when there is none.
    virtual NorvoVirtualChannel::VirtualChannel* channel() const = 0;
    // Whether the agents are connected: stream data is sent while they are, otherwise it waits.
    virtual void letStreamsSend(bool may) NORVO_TAKES_LEAF = 0;
    // Hands the message to the channel on this thread.
    virtual void SendMessageToChannel(const VCMessage& message) = 0;
    // Queues a message about a stream for the send thread.
    virtual void SendMessageToChannelAboutStream(MessageTypeEnum type,
                                                 const StreamDetails& stream) NORVO_TAKES_LEAF = 0;
    // Whether the peer has announced a stream of that name.
    virtual bool peerSupports(const std::string& streamName) const NORVO_TAKES_LEAF = 0;

    // ---- Local processes

    // Queues one message for all listeners.
    virtual void notifyInfoS(std::string message) NORVO_TAKES_STREAMS = 0;
    virtual void notifyInvalidStreams() NORVO_TAKES_STREAMS = 0;
    // Tells them the stream's name and direction.
    virtual void notifyStream(Agent::Stream& stream) NORVO_TAKES_STREAMS = 0;

    // ---- Streams

    // Empty when there is none.
    virtual StreamPtr findStream(std::string_view name) const NORVO_TAKES_STREAMS = 0;
    // All of them, in name order.
    virtual std::vector<StreamPtr> streams() const NORVO_TAKES_STREAMS = 0;
    // A stream that is not in the table yet. `segment` is set up, or empty.
    virtual StreamPtr makeStream(const StreamDetails& stream,
                                 std::shared_ptr<shared_memory::SharedMemoryI> segment) = 0;
    // Frees streams that are no longer needed.
    virtual void freeUnusedStreams() NORVO_TAKES_CREATION = 0;

    // Starts what should run from the beginning, but found no thread then.
    virtual void catchUp() NORVO_TAKES_SERVICE = 0;

private:
    static std::string clientName() {
        return VDIFrameworkCommon::VDIClientInfo::getInstance().getClientName();
    }
};

// A text from outside, cut to what a log line shows.
inline std::string_view shown(std::string_view text) { return text.substr(0, 300); }

}  // namespace VirtualChannelAgent

// A log line of the agent that `context` belongs to.
#define AGENT_LOG(context, severity, ...) NORVO_LOG(severity, (context).logPrefix, __VA_ARGS__)
// The same for repeated events: `repeats` summarises them (LogRepeats.h).
#define AGENT_LOG_REPEATED(context, repeats, severity, ...) \
    NORVO_LOG_REPEATED(repeats, severity, (context).logPrefix, __VA_ARGS__)
