// The agent: what stands between one virtual channel and the local shared-memory streams.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "HvdClientInfoManager.h"
#include "SharedMemoryI.h"
#include "VirtualChannel.h"

namespace VirtualChannelAgent {

class AgentEnvironment;

// Observes a channel, shakes hands with the agent at its far end, serves the streams that local
// processes and the far side ask for, and speaks the INFO protocol with local processes.
//
// Threads: every operation may be called from any thread unless it says otherwise. While connected
// the agent has two threads of its own, and one per stream that it writes; nothing of it runs any
// more once stop() or the destructor has returned.
//
// What the agent calls: the window questions of its channel may call any Observer operation of the
// agent back, from inside. GetType, SendData and onAgentStateChange may not, on the calling thread;
// they may use the channel itself and IsConnected(). Nothing is ever thrown.
class Agent : public NorvoVirtualChannel::Observer, public shared_memory::SharedMemoryObserverI {
public:
    // One stream between the agent and a local process (AgentStream.h).
    class Stream;

    // Sets up the two INFO segments and attaches itself to `channel` (may be null; not owned),
    // which may call it back from then on. `name` begins every log line. `environment` is the
    // machine that the agent runs on; null stands for the real one.
    Agent(NorvoVirtualChannel::VirtualChannel* channel, const std::string& name,
          std::shared_ptr<AgentEnvironment> environment = nullptr);

    // Ends whatever stop() has not: the threads, the streams, the place in the channel. In contrast
    // to stop() the far side is not told. Not from inside a call that the agent has made or
    // received.
    ~Agent() override;

    Agent(const Agent&) = delete;
    Agent& operator=(const Agent&) = delete;

    // Leaves the old channel and observes `channel` (null: none). The old one must outlive calls to
    // it that are under way on other threads. Not from inside an Observer operation.
    void SetVirtualChannel(NorvoVirtualChannel::VirtualChannel* channel);

    // The two agents have shaken hands and have not lost each other since.
    bool IsConnected() const;

    // Made on the first call, let go by stop(). Never null.
    std::shared_ptr<HvdClientInfoManager> getHvdClientInfoManager();

    // Says goodbye to the far side, ends threads and streams, and leaves the channel. The agent
    // does nothing after it. A second call, also at the same time, waits for the first and does
    // nothing. Not from inside a call that the agent has made or received.
    void stop();

    // Wall-clock milliseconds since the epoch.
    static std::uint64_t getCurrentMS();

    // The channel's side.
    void OnVirtualChannelReceiveData(const void* data, unsigned int length) override;
    void OnVirtualChannelAvailabilityChange(bool available) override;
    void OnVirtualChannelShutdown() override;
    void OnSessionAvailabilityChange(bool up) override;
    void OnThinClientPlatformChange(unsigned int platform) override;
    void OnChannelBlockedByPolicySetting(bool blocked) override;

    // A request of a local process, from the INFO input segment.
    void onNewMessageReceived(std::string message, shared_memory::SharedMemoryI* source) override;

private:
    struct Parts;
    enum class Ending { Orderly, Silent };
    void begin(NorvoVirtualChannel::VirtualChannel* channel);
    void end(Ending ending);

    const std::unique_ptr<Parts> m_parts;
};

}  // namespace VirtualChannelAgent
