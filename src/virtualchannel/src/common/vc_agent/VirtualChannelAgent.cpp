#include "VirtualChannelAgent.h"

#include <sys/time.h>

#include <exception>
#include <utility>

#include "AgentConnection.h"
#include "AgentContext.h"
#include "AgentThread.h"
#include "ChannelLink.h"
#include "ControlProtocol.h"
#include "InfoNotifier.h"
#include "InfoRequests.h"
#include "InfoSegments.h"
#include "OutgoingMessages.h"
#include "PeerCapabilities.h"
#include "StreamService.h"
#include "StreamTable.h"

namespace VirtualChannelAgent {

using lock_order::OrderedLock;
using NorvoVirtualChannel::VirtualChannel;
using VDIFrameworkCommon::contained;
using VDIFrameworkCommon::kInfoSegmentSize;

namespace {

// Handling a message may run out of memory; nothing may be thrown to its thread.
template <class Handle>
void dropOnException(const AgentContext& context, const Handle& handle) {
    try {
        handle();
    } catch (const std::exception& failure) {
        AGENT_LOG(context, Error, "Message dropped: ", failure.what());
    }
}

}  // namespace

// The parts of an agent, each after those it uses.
struct Agent::Parts final : AgentContext {
    using AgentContext::AgentContext;

    VirtualChannel* channel() const override { return m_link.channel(); }
    void SendMessageToChannel(const VCMessage& message) override {
        m_link.SendMessageToChannel(message, false);
    }
    void letStreamsSend(bool may) override { m_link.setConnected(may); }
    void SendMessageToChannelAboutStream(MessageTypeEnum type,
                                         const StreamDetails& stream) override {
        m_outgoing.SendMessageToChannelAboutStream(type, stream);
    }
    bool peerSupports(const std::string& streamName) const override {
        return m_peer.supports(streamName);
    }
    void notifyInfoS(std::string message) override { m_notifier.notifyInfoS(std::move(message)); }
    void notifyInvalidStreams() override { m_notifier.notifyInvalidStreams(); }
    void notifyStream(Stream& stream) override { m_notifier.notifyStream(stream); }
    StreamPtr findStream(std::string_view name) const override { return m_streams.find(name); }
    std::vector<StreamPtr> streams() const override { return m_streams.snapshot(); }
    StreamPtr makeStream(const StreamDetails& stream,
                         std::shared_ptr<shared_memory::SharedMemoryI> segment) override {
        return std::make_shared<Stream>(*this, m_link, stream.name, stream.type, stream.size,
                                        std::move(segment));
    }

    void freeUnusedStreams() override { m_service.freeUnused(); }

    void catchUp() override {
        if (stopping) return;
        m_service.catchUp();
        if (m_lacksSubscription.exchange(false)) listen();
    }
    void listen() {
        m_lacksSubscription = !m_infoReader->subscribeObserver(m_listener);
        if (m_lacksSubscription) AGENT_LOG(*this, Error, "No thread to listen to local processes.");
        // The end may have passed this by.
        if (stopping) m_infoReader->unsubscribeObserver(m_listener);
    }

    std::shared_ptr<HvdClientInfoManager> clientInfo() {
        OrderedLock lock(m_valuesMutex, lock_order::leaf);
        if (!m_clientInfo) m_clientInfo = std::make_shared<HvdClientInfoManager>();
        return m_clientInfo;
    }
    void dropClientInfo() {
        OrderedLock lock(m_valuesMutex, lock_order::leaf);
        m_clientInfo.reset();
    }

    ChannelLink m_link{*this};
    PeerCapabilities m_peer;
    StreamTable m_streams;
    OutgoingMessages m_outgoing{*this};
    InfoNotifier m_notifier{*this, m_peer};
    StreamService m_service{*this, m_streams};
    AgentConnection m_connection{*this, m_outgoing, m_notifier};
    ControlProtocol m_protocol{*this, m_peer, m_service, m_connection};
    InfoRequests m_requests{*this, m_service, m_notifier, m_connection,
                            [this] { return clientInfo(); }};

    // The segment for requests of local processes; empty when it could not be set up.
    std::shared_ptr<shared_memory::SharedMemoryI> m_infoReader;
    shared_memory::SharedMemoryObserverI* m_listener = nullptr;
    // It has been set up without its listener.
    std::atomic<bool> m_lacksSubscription{false};

    VDIFrameworkCommon::LocalMutex m_valuesMutex;
    std::shared_ptr<HvdClientInfoManager> m_clientInfo NORVO_GUARDED_BY(m_valuesMutex);

    // Held while the agent enters or leaves a channel.
    VDIFrameworkCommon::LocalMutex m_attachmentMutex;

    VDIFrameworkCommon::LocalMutex m_lifecycleMutex;
    bool m_ended NORVO_GUARDED_BY(m_lifecycleMutex) = false;
};

Agent::Agent(VirtualChannel* channel, const std::string& name,
             std::shared_ptr<AgentEnvironment> environment)
    : m_parts(std::make_unique<Parts>(name, std::move(environment))) {
    try {
        begin(channel);
    } catch (...) {
        end(Ending::Silent);  // the channel must not keep a destroyed observer
        throw;
    }
}

void Agent::begin(VirtualChannel* channel) {
    const AgentContext& context = *m_parts;
    AGENT_LOG(context, Notice, "Virtual Channel Agent created (PRINT_MESSAGES: ", "disabled",
              "), version: ", kChannelVersion);
    if (context.environment->hasOtherActiveAgent()) {
        AGENT_LOG(
            context, Warning,
            "Another virtual channel agent is active, and this one idle until it has ended and the "
            "host reports the channel as available again.",
            context.activeAgent());
    }
    SetVirtualChannel(channel);
    m_parts->m_service.beginInfoOutput(kInfoSegmentSize);
    if (const int left = context.environment->removeOrphanedPeerSegments()) {
        AGENT_LOG(context, Notice, "Removed what agents left that were killed, segments: ", left);
    }
    const auto requests = m_parts->m_service.CreateInternalSharedMemory(
        context.infoInputName, StreamType::READ, kInfoSegmentSize);
    m_parts->m_infoReader = requests.memory;
    m_parts->m_listener = this;
    if (requests.memory) m_parts->listen();
    if (!requests.isSetUp || m_parts->m_lacksSubscription) {
        AGENT_LOG(context, Error, "infoSharedMemory create failed");
    }
    m_parts->m_notifier.notifyCurrentProcessId(false);
    m_parts->m_notifier.notifyEnviromentType();
}

Agent::~Agent() { end(Ending::Silent); }

void Agent::stop() { end(Ending::Orderly); }

// A step that fails, for example for lack of memory, does not keep the others from being taken.
void Agent::end(Ending ending) {
    AgentContext& context = *m_parts;
    OrderedLock lock(m_parts->m_lifecycleMutex, lock_order::lifecycle);
    if (std::exchange(m_parts->m_ended, true)) return;
    context.stopping = true;
    AGENT_LOG(context, Notice, "Destroying Virtual Channel Agent");
    m_parts->dropClientInfo();
    const auto closeReader = [this] {
        if (!m_parts->m_infoReader) return;
        contained("Leaving the requests",
                  [&] { m_parts->m_infoReader->unsubscribeObserver(this); });
        contained("Closing the requests", [&] { m_parts->m_infoReader->Close(); });
    };
    AgentThread closing;  // a separate thread, as it may have to wait for the segment's mutex
    if (!closing.start(closeReader)) closeReader();
    contained("Ending the connection",
              [&] { m_parts->m_connection.end(ending == Ending::Orderly); });
    contained("Ending the streams", [&] { m_parts->m_service.closeAll(); });
    closing.join();
    if (ending == Ending::Orderly) {
        contained("Ending the watch", [&] { context.environment->endActivityWatch(); });
    }
    leaveChannel();
    AGENT_LOG(context, Notice, "Finished releasing resources");
}

void Agent::leaveChannel() {
    const AgentContext& context = *m_parts;
    OrderedLock lock(m_parts->m_attachmentMutex, lock_order::attachment);
    VirtualChannel* const channel = m_parts->m_link.channel();
    if (!channel) return;
    AGENT_LOG(context, Info, "m_pChannel->RemoveObserver ");
    contained("Leaving the channel", [&] { channel->RemoveObserver(this); });
    m_parts->m_link.setChannel(nullptr);
}

void Agent::SetVirtualChannel(VirtualChannel* channel) {
    AgentContext& context = *m_parts;
    ChannelLink& link = m_parts->m_link;
    AGENT_LOG(context, Info, "SetVirtualChannel( ", static_cast<const void*>(channel), " )");
    m_parts->catchUp();
    OrderedLock lock(m_parts->m_attachmentMutex, lock_order::attachment);
    if (VirtualChannel* const old = link.channel()) {
        AGENT_LOG(context, Info,
                  "Stop observing underline channel: ", static_cast<const void*>(old));
        old->RemoveObserver(this);
    }
    // An agent that has left its channel for good would never leave the new one.
    if (context.stopping) channel = nullptr;
    link.setChannel(channel);
    if (channel) {
        AGENT_LOG(context, Info,
                  "Start observing underline channel: ", static_cast<const void*>(channel));
        channel->AddObserver(this);
    }
}

bool Agent::IsConnected() const { return m_parts->connected; }

std::shared_ptr<HvdClientInfoManager> Agent::getHvdClientInfoManager() {
    return m_parts->clientInfo();
}

std::uint64_t Agent::getCurrentMS() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000 +
           static_cast<std::uint64_t>(now.tv_usec) / 1000;
}

void Agent::OnVirtualChannelReceiveData(const void* data, unsigned int length) {
    dropOnException(*m_parts, [&] { m_parts->m_protocol.receive(data, length); });
}

void Agent::OnVirtualChannelAvailabilityChange(bool available) {
    m_parts->m_connection.availabilityChanged(available);
}

void Agent::OnVirtualChannelShutdown() { m_parts->m_connection.channelShutsDown(); }

void Agent::OnSessionAvailabilityChange(bool up) {
    const AgentContext& context = *m_parts;
    AGENT_LOG(context, Notice, up ? " session is up" : " session is down");
    m_parts->m_notifier.notifyEvent(up ? "SessionUp" : "SessionDown");
    if (!up) OnVirtualChannelAvailabilityChange(false);
}

void Agent::OnThinClientPlatformChange(unsigned int platform) {
    m_parts->m_notifier.notifyThinClientPlatform(platform);
}

void Agent::OnChannelBlockedByPolicySetting(bool blocked) {
    m_parts->m_notifier.notifyChannelBlocked(blocked);
}

void Agent::onNewMessageReceived(std::string message, shared_memory::SharedMemoryI* /*source*/) {
    dropOnException(*m_parts, [&] { m_parts->m_requests.handle(message); });
}

}  // namespace VirtualChannelAgent
