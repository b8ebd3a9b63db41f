// The agent connects one virtual channel with the local shared-memory streams.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "HvdClientInfoManager.h"
#include "SharedMemoryI.h"
#include "VirtualChannel.h"

namespace VirtualChannelAgent {

class AgentEnvironment;

// Observes a channel, performs the handshake with the peer agent, serves the streams that local
// processes and the peer request, and speaks the INFO protocol with local processes.
//
// Threads: every operation may be called from any thread unless it says otherwise. The agent has
// two threads while connected, one per running stream that it writes, and one while segments wait
// to be set up. All have ended when stop() or the destructor returns.
//
// Re-entrancy: the window operations of the agent's channel may call any Observer operation of the
// agent from inside. GetType, SendData and onAgentStateChange must not, on the calling thread; they
// may use the channel itself and IsConnected(). Nothing is ever thrown.
class Agent : public NorvoVirtualChannel::Observer, public shared_memory::SharedMemoryObserverI {
public:
    // One stream between the agent and a local process (AgentStream.h).
    class Stream;

    // Sets up the two INFO segments and attaches itself to `channel` (may be null; not owned),
    // which may call it from then on. `name` begins every log line. `environment` is the machine
    // that the agent runs on; null means the real one.
    Agent(NorvoVirtualChannel::VirtualChannel* channel, const std::string& name,
          std::shared_ptr<AgentEnvironment> environment = nullptr);

    // Ends what stop() has not: threads, streams, and observation of the channel. Unlike stop(),
    // does not tell the peer. Not from inside a call that the agent has made or received.
    ~Agent() override;

    Agent(const Agent&) = delete;
    Agent& operator=(const Agent&) = delete;

    // Leaves the old channel and observes `channel` (null: none). The old one must outlive other
    // threads' running calls to it. Not from inside an Observer operation.
    void SetVirtualChannel(NorvoVirtualChannel::VirtualChannel* channel);

    // Whether the two agents have completed a handshake and not disconnected since.
    bool IsConnected() const;

    // Made on the first call, released by stop(). Never null.
    std::shared_ptr<HvdClientInfoManager> getHvdClientInfoManager();

    // Sends CTL_DISCONNECT to the peer, ends threads and streams, and leaves the channel. The agent
    // does nothing afterwards. A second call, also a concurrent one, waits for the first and does
    // nothing. Not from inside a call that the agent has made or received.
    void stop();

    // Wall-clock milliseconds since the epoch.
    static std::uint64_t getCurrentMS();

    // Called by the channel.
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
    void leaveChannel();

    const std::unique_ptr<Parts> m_parts;
};

}  // namespace VirtualChannelAgent
