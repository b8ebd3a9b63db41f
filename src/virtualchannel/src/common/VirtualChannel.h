// The transport as the agent sees it, and the agent as a transport sees it.
#pragma once

#include <chrono>
#include <functional>

#include "ChannelKinds.h"

namespace NorvoVirtualChannel {

// A channel's upward side. A channel calls these on its host's threads with no lock held, so an
// observer may call back into the channel; some kinds call one at a time, some do not.
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

// How a message of a stream has fared.
enum class StreamSend {
    Sent,     // all of it has been queued for the transport
    NotSent,  // nothing of it has: it may be handed over again, once the agents are connected
    Dropped,  // the channel was reset, or the sender gave up, when a part had been queued
};

// One transport.
class VirtualChannel {
public:
    // The largest packet the transport carries, in bytes, header included.
    virtual int GetMaxMsgSize() = 0;
    // Queues one message of `length` bytes, which are copied. 0 when accepted, -1 when the channel
    // is shut down. Any thread.
    virtual int SendData(const void* data, unsigned int length, bool lowPriority) = 0;
    // One observer at a time; a new one replaces the old. Not owned.
    virtual void AddObserver(Observer* observer) = 0;
    // Empties the observer's place, whatever `observer` is.
    virtual void RemoveObserver(Observer* observer) = 0;
    // A ChannelType.
    virtual int GetType() = 0;
    // Drops what is queued and not sent yet.
    virtual void ResetChannel() = 0;
    virtual bool IsSeamlessMode() { return false; }
    virtual bool IsMultiSession() { return false; }
    virtual void* GetClientWindowHandleFromServerWindowHandle(void* /*serverWindow*/) {
        return nullptr;
    }
    // The agents at the two ends have found or lost each other.
    virtual void onAgentStateChange(bool connected) = 0;
    virtual ~VirtualChannel() = default;
    // The far side begins anew: what it has sent only in part will never be completed. Any thread,
    // also from inside a call of the observer.
    virtual void ForgetIncompleteMessages() {}
    // Waits until what was queued before the call has been handed to the host, at most `limit`.
    // Whether it has been.
    virtual bool WaitUntilSent(std::chrono::milliseconds /*limit*/) { return true; }
    // Hands over one message of a stream, which takes its turn with those of the other streams:
    // waits until all of it has been queued. Ends early when the agents lose each other, when the
    // channel is reset or shut down, and when `goesOn()` has become false (call
    // WakeStreamSenders() then). `goesOn` is called with a lock held and takes none itself. One
    // message of a stream at a time; any thread but one that is inside a callback. Never throws.
    virtual StreamSend SendStreamData(const void* data, unsigned int length, bool lowPriority,
                                      const std::function<bool()>& /*goesOn*/) {
        SendData(data, length, lowPriority);
        return StreamSend::Sent;
    }
    // Has those who wait in SendStreamData() look at their `goesOn()` again.
    virtual void WakeStreamSenders() {}
};

}  // namespace NorvoVirtualChannel
