// What all kinds of channel have in common. A kind is a class of its own over it that states its
// profile and the few steps that differ.
#pragma once

#include <atomic>
#include <memory>
#include <string_view>

#include "LocalMutex.h"
#include "Log.h"
#include "ObserverSlot.h"
#include "Packets.h"
#include "Turnstile.h"
#include "VirtualChannel.h"
#include "WorkerThread.h"

namespace VirtualChannelAgent {
class Agent;
}

namespace NorvoVirtualChannel::tc {

// What makes a kind.
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
// packets for its observer, and owns the agent. Any operation on any thread, in any order, also
// while another one runs Shutdown().
//
// A concrete class ends what the constructor began by calling release() in its destructor; a
// channel is destroyed only when nobody uses it any more.
class TransportChannel : public VirtualChannel, public PacketizationObserver {
public:
    ~TransportChannel() override;
    TransportChannel(const TransportChannel&) = delete;
    TransportChannel& operator=(const TransportChannel&) = delete;

    // ---- The host's side

    // Makes the agent, unless there is one. 0.
    virtual int OnChannelInitialize();
    // Takes in one received packet; what it completes is delivered before the call returns. 0, also
    // when the packet is dropped; -1 when the channel refuses packets for good. A packet that comes
    // from inside a delivery, on its thread, is dropped.
    virtual int ReceiveData(const void* data, unsigned int length);
    // 1 available, 0 not available; other states are ignored, and so is any without an observer.
    void ChannelActive(int state);
    // Ends the agent, and what else the kind ends. Ignored inside a question to the host.
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
    StreamSend SendStreamData(const void* data, unsigned int length, bool lowPriority,
                              const std::function<bool()>& goesOn) override;
    void WakeStreamSenders() override { m_turnstile.wakeSenders(); }
    bool WaitUntilSent(std::chrono::milliseconds limit) override;

    // ---- PacketizationObserver

    void OnFullPacketReceived(const void* data, unsigned int size) override;

protected:
    // Starts the worker. `pause` as in WorkerThread.
    TransportChannel(const ChannelProfile& profile, WorkerThread::Pause pause);

    // ---- What a kind may have of its own

    virtual bool isOpen() { return true; }                  // packets pass, either way
    virtual void beforeAvailabilityChange(bool available);  // called inside the observer's turn
    virtual void shutdownSteps() NORVO_REQUIRES(m_lifeMutex) = 0;

    // ---- Steps to build them from

    int takePacket(const void* data, unsigned int length);
    // To be called when what isOpen() answers has changed.
    void noteAvailability();
    void setObserver(Observer* observer) { m_observer.set(observer); }
    // Tells the observer of the shutdown. False when there is none.
    bool notifyShutdown();
    // Both leave the agent's place empty; nothing is left of the agent then.
    void stopAndDeleteAgent() NORVO_REQUIRES(m_lifeMutex);
    void deleteAgent() NORVO_REQUIRES(m_lifeMutex);
    // Stops and deletes worker and packetizer: the channel carries nothing any more.
    void deleteParts();
    void release();

    const ChannelProfile m_profile;
    // Held for the whole of OnChannelInitialize() and Shutdown(), and never taken by anything that
    // they wait for.
    VDIFrameworkCommon::LocalMutex m_lifeMutex;

private:
    struct Parts;
    class OutgoingMessage;

    // A call of the channel that is under way keeps what it uses.
    std::shared_ptr<Parts> parts();
    bool insideCallback(const char* operation) const;

    ObserverSlot m_observer;
    std::atomic<bool> m_available{false};  // as the host said last
    std::unique_ptr<VirtualChannelAgent::Agent> m_agent NORVO_GUARDED_BY(m_lifeMutex);
    Turnstile m_turnstile;  // outlives the worker, which takes from it
    VDIFrameworkCommon::LocalMutex m_partsMutex;
    std::shared_ptr<Parts> m_parts NORVO_GUARDED_BY(m_partsMutex);
    // Parts whose worker did not come back from the host when it was stopped.
    std::shared_ptr<Parts> m_leftBehind NORVO_GUARDED_BY(m_partsMutex);
};

}  // namespace NorvoVirtualChannel::tc

// A log line in the name of the channel's own class.
#define CHANNEL_LOG(severity, ...)                                                          \
    do {                                                                                    \
        if (::KLT::kltlogger::isEnabled(::KLT::kltlogger::severity)) {                      \
            ::KLT::kltlogger::write(::KLT::kltlogger::severity, m_profile.source, __LINE__, \
                                    __func__, ::KLT::kltlogger::compose(__VA_ARGS__));      \
        }                                                                                   \
    } while (false)
