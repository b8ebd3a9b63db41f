#include "RDPVirtualChannel.h"

#include <utility>

#include "KRANRunner.h"

namespace NorvoVirtualChannel::tc {

namespace {
constexpr ChannelProfile kProfile{
    .type = kRdp,
    .maxMsgSize = maxPacketOf(kRdp),
    .packetsToSendPerBreak = 10,
    .breakTime = 3,
    .observerCalls = ObserverCalls::Concurrent,
    .flow = {.slice = 10,
             .quantum = 10,
             .backlog = 33,
             .alone = 33,
             .lowWater = 22,
             .stage = 60,
             .first = 60},
    .name = "RDPVirtualChannel",
    .source = "src/virtualchannel/src/tc/SharedLib/RDPVirtualChannel",
};
}

RDPVirtualChannel* RDPVirtualChannel::GetInstance() {
    static RDPVirtualChannel* const instance = new RDPVirtualChannel;
    return instance;
}

RDPVirtualChannel::RDPVirtualChannel(WorkerThread::Pause pause)
    : TransportChannel(kProfile, std::move(pause)) {}

RDPVirtualChannel::~RDPVirtualChannel() { release(); }

int RDPVirtualChannel::OnChannelInitialize() {
    addRunner();
    return TransportChannel::OnChannelInitialize();
}

void RDPVirtualChannel::traceSending(unsigned int length, bool lowPriority) {
    CHANNEL_LOG(Trace, m_profile.name, "::SendData(),lowPriority = ", lowPriority,
                ", size = ", length);
}

void RDPVirtualChannel::shutdownSteps() {
    CHANNEL_LOG(Trace, "Shutdown received.");
    removeRunner();
    cleanupSharedMemory();
    if (!notifyShutdown()) return;
    stopAndDeleteAgent();
    VirtualChannelLogger_flushBufferIfAllowed();
}

}  // namespace NorvoVirtualChannel::tc
