// The transport as the agent sees it, and the agent as a transport sees it.
#pragma once

#include <chrono>
#include <functional>
#include <memory>

#include "ChannelKinds.h"
#include "MemoryBlock.h"
#include "SplitBytes.h"

namespace VDIFrameworkCommon {
class StandIn;
}

namespace NorvoVirtualChannel {

// Receives a channel's events. Called on the host's threads with no lock held, so an observer may
// call back into the channel. Some kinds of channel make one call at a time, others several.
class Observer {
public:
    // One whole message. `data` is valid during the call only.
    virtual void OnVirtualChannelReceiveData(const void* data, unsigned int length) = 0;
    virtual void OnVirtualChannelAvailabilityChange(bool available) = 0;
    virtual void OnVirtualChannelShutdown() = 0;
    virtual void OnSessionAvailabilityChange(bool up) = 0;
    virtual void OnThinClientPlatformChange(unsigned int platform) = 0;
    virtual void OnChannelBlockedByPolicySetting(bool blocked) = 0;
    virtual ~Observer() = default;
};

// The result of sending one message of a stream.
enum class StreamSend {
    Sent,     // all of it has been queued for the transport
    NotSent,  // none of it has been queued: it may be sent again once the agents are connected
    Dropped,  // the channel was reset, or the sender gave up, after part had been queued
};

// One transport.
class VirtualChannel {
public:
    // The largest packet the transport carries, in bytes, header included.
    virtual int GetMaxMsgSize() = 0;
    // Queues one message of `length` bytes, which are copied. -1 when the channel refuses messages
    // for good, else 0, also when the message is dropped. Any thread.
    virtual int SendData(const void* data, unsigned int length, bool lowPriority) = 0;
    // One observer at a time; a new one replaces the old. Not owned.
    virtual void AddObserver(Observer* observer) = 0;
    // Removes the observer, whatever `observer` is.
    virtual void RemoveObserver(Observer* observer) = 0;
    // Returns a ChannelType.
    virtual int GetType() = 0;
    // Drops what is queued but not yet sent.
    virtual void ResetChannel() = 0;
    virtual bool IsSeamlessMode() { return false; }
    virtual bool IsMultiSession() { return false; }
    virtual void* GetClientWindowHandleFromServerWindowHandle(void* /*serverWindow*/) {
        return nullptr;
    }
    // The agents at the two ends have connected or disconnected.
    virtual void onAgentStateChange(bool connected) = 0;
    virtual ~VirtualChannel() = default;
    // The peer has restarted: messages that it has sent in part will never be completed. Any
    // thread, also from inside an observer call.
    virtual void ForgetIncompleteMessages() {}
    // From inside OnVirtualChannelReceiveData, on its thread: the memory that the message lies in,
    // which stays where it is and is the caller's from then on. Empty when it is the host's.
    virtual VDIFrameworkCommon::MemoryBlock TakeReceivedMemory() { return {}; }
    // Waits, at most `limit`, until what was queued before the call has been handed to the host.
    // Returns whether it has been.
    virtual bool WaitUntilSent(std::chrono::milliseconds /*limit*/) { return true; }
    // Sends one message of a stream, in turn with those of other streams, and waits until all of it
    // has been queued. Returns early when the agents are disconnected, when the channel is reset or
    // shut down, and when `goesOn()` has become false (call WakeStreamSenders() then). `goesOn` is
    // called with a lock held and must not take one. One message of a stream at a time; any thread
    // that is not inside a callback. Never throws.
    virtual StreamSend SendStreamData(const VDIFrameworkCommon::SplitBytes& message,
                                      bool lowPriority, const std::function<bool()>& goesOn) = 0;
    // The same without waiting: NotSent, too, when the message is long or it is not its turn.
    virtual StreamSend SendStreamDataAtOnce(const VDIFrameworkCommon::SplitBytes& /*message*/,
                                            bool /*lowPriority*/) {
        return StreamSend::NotSent;
    }
    // The thread that hands packets to the host, while it has time to wait for the streams'
    // messages, too; it sends them by SendStreamDataAtOnce(). Empty otherwise.
    virtual std::shared_ptr<VDIFrameworkCommon::StandIn> StreamStandIn() { return {}; }
    // Makes waiting SendStreamData() calls check their `goesOn()` again.
    virtual void WakeStreamSenders() {}
};

}  // namespace NorvoVirtualChannel
