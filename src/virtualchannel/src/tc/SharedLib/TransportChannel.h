// The common base of all kinds of channel. Each kind derives a class with its profile and the few
// steps that differ.
#pragma once

#include <atomic>
#include <memory>
#include <string_view>

#include "LocalMutex.h"
#include "Log.h"
#include "ObserverSlot.h"
#include "Packets.h"
#include "ReentryMark.h"
#include "Turnstile.h"
#include "VirtualChannel.h"
#include "WorkerThread.h"

namespace VirtualChannelAgent {
class Agent;
}

namespace NorvoVirtualChannel::tc {

// The parameters of a kind.
struct ChannelProfile {
    ChannelType type;
    int maxMsgSize;  // largest packet in bytes, header included
    int packetsToSendPerBreak;
    int breakTime;  // ms; 0: never pauses
    ObserverCalls observerCalls;
    FlowLimits flow;
    std::string_view name;    // class name, as traced
    std::string_view source;  // source name of the class's log lines
};

// One transport: cuts messages into packets that its worker hands to the host, joins received
// packets for its observer, and owns the agent. Any operation may be called on any thread, in any
// order, also during a Shutdown() on another.
//
// A concrete class must call release() in its destructor. A channel is destroyed only when it is no
// longer in use.
class TransportChannel : public VirtualChannel, public PacketizationObserver {
public:
    ~TransportChannel() override;
    TransportChannel(const TransportChannel&) = delete;
    TransportChannel& operator=(const TransportChannel&) = delete;

    // ---- The host's side

    // Makes the agent, unless there is one. Returns 0.
    virtual int OnChannelInitialize();
    // Takes one received packet; a message that it completes is delivered before the call returns.
    // 0, also when the packet is dropped; -1 when the channel refuses packets for good. A packet
    // received inside a delivery, on the same thread, is dropped.
    virtual int ReceiveData(const void* data, unsigned int length);
    // 1: available, 0: not available; other states are ignored. Without an observer, a GatedChannel
    // neither opens nor closes.
    void ChannelActive(int state);
    // Ends the agent, and what else the kind ends. Ignored inside a host callback or an observer
    // call.
    void Shutdown();

    // ---- VirtualChannel

    int GetMaxMsgSize() override { return m_profile.maxMsgSize; }
    int SendData(const void* data, unsigned int length, bool lowPriority) override;
    void AddObserver(Observer* observer) override;
    void RemoveObserver(Observer* observer) override;
    int GetType() override;
    void ResetChannel() override;
    bool IsSeamlessMode() override;
    void* GetClientWindowHandleFromServerWindowHandle(void* serverWindow) override;
    void onAgentStateChange(bool connected) override;
    void ForgetIncompleteMessages() override;
    StreamSend SendStreamData(const VDIFrameworkCommon::SplitBytes& message, bool lowPriority,
                              const std::function<bool()>& goesOn) override;
    StreamSend SendStreamDataAtOnce(const VDIFrameworkCommon::SplitBytes& message,
                                    bool lowPriority) override;
    std::shared_ptr<VDIFrameworkCommon::StandIn> StreamStandIn() override;
    void WakeStreamSenders() override { m_turnstile.wakeSenders(); }
    VDIFrameworkCommon::MemoryBlock TakeReceivedMemory() override;
    bool WaitUntilSent(std::chrono::milliseconds limit) override;

    // ---- PacketizationObserver

    void OnFullPacketReceived(const void* data, unsigned int size) override;

protected:
    // Starts the worker. `pause` as in WorkerThread.
    TransportChannel(const ChannelProfile& profile, WorkerThread::Pause pause);

    // ---- What a kind may override

    virtual bool isOpen() { return true; }                  // packets pass, in both directions
    virtual void beforeAvailabilityChange(bool available);  // called within the observer call
    virtual void traceSending(unsigned int length, bool lowPriority);
    virtual void shutdownSteps() NORVO_REQUIRES(m_lifeMutex) = 0;

    // ---- Steps for use in overrides

    int takePacket(const void* data, unsigned int length);
    // To be called when the result of isOpen() has changed.
    void noteAvailability();
    void setObserver(Observer* observer) { m_observer.set(observer); }
    // Tells the observer of the shutdown. False when there is no observer.
    bool notifyShutdown();
    // Both end and delete the agent; one that does not return from a call is abandoned instead.
    void stopAndDeleteAgent() NORVO_REQUIRES(m_lifeMutex);
    void deleteAgent() NORVO_REQUIRES(m_lifeMutex);
    // Ends the worker and drops what has arrived in part: the channel sends nothing from then on.
    void endTraffic();
    void release();

    const ChannelProfile m_profile;
    // Held throughout OnChannelInitialize() and Shutdown(); nothing that they wait for takes it.
    VDIFrameworkCommon::LocalMutex m_lifeMutex;

private:
    class OutgoingMessage;

    using PassTurnstile = std::function<StreamSend(Turnstile::Message&, WorkerThread&)>;
    StreamSend sendThrough(const VDIFrameworkCommon::SplitBytes& message, bool lowPriority,
                           const PassTurnstile& pass);
    // A running call keeps it alive. Null once it has been ended.
    std::shared_ptr<WorkerThread> worker();
    bool isInsideDelivery() const { return ReentryMark::isSet(&m_packetizer); }
    bool insideCallback(const char* operation) const;

    ObserverSlot m_observer;
    std::atomic<bool> m_available{false};  // as last set by the host
    std::unique_ptr<VirtualChannelAgent::Agent> m_agent NORVO_GUARDED_BY(m_lifeMutex);
    Packetization m_packetizer;
    Turnstile m_turnstile;  // must outlive the worker, which takes from it
    VDIFrameworkCommon::LocalMutex m_workerMutex;
    std::shared_ptr<WorkerThread> m_worker NORVO_GUARDED_BY(m_workerMutex);
    // A worker that did not return from the host when it was stopped.
    std::shared_ptr<WorkerThread> m_abandonedWorker NORVO_GUARDED_BY(m_workerMutex);
};

}  // namespace NorvoVirtualChannel::tc

// A log line with the concrete class's source name.
#define CHANNEL_LOG(severity, ...)                                                              \
    do {                                                                                        \
        if (::KLT::kltlogger::isEnabled(::KLT::kltlogger::severity)) {                          \
            ::KLT::kltlogger::writeLine(::KLT::kltlogger::severity, m_profile.source, __LINE__, \
                                        __func__, __VA_ARGS__);                                 \
        }                                                                                       \
    } while (false)
