#include "CitrixVirtualChannel.h"

#include <utility>

#include "Acknowledgement.h"
#include "Contained.h"
#include "HostCallbacks.h"
#include "KRANRunner.h"

namespace NorvoVirtualChannel::tc {

using VDIFrameworkCommon::contained;

namespace {
constexpr ChannelProfile kProfile{
    .type = kCitrix,
    .maxMsgSize = maxPacketOf(kCitrix),
    .packetsToSendPerBreak = 10,
    .breakTime = 3,
    .observerCalls = ObserverCalls::OneAtATime,
    .flow = {.slice = 10,
             .quantum = 10,
             .backlog = 33,
             .alone = 33,
             .lowWater = 22,
             .stage = 60,
             .first = 60},
    .name = "CitrixVirtualChannel",
    .source = "src/virtualchannel/src/tc/SharedLib/CitrixVirtualChannel",
};
}

CitrixVirtualChannel* CitrixVirtualChannel::GetInstance() {
    static CitrixVirtualChannel* const instance = new CitrixVirtualChannel;
    return instance;
}

CitrixVirtualChannel::CitrixVirtualChannel(WorkerThread::Pause pause)
    : TransportChannel(kProfile, std::move(pause)) {
    addRunner();
}

CitrixVirtualChannel::~CitrixVirtualChannel() { release(); }

int CitrixVirtualChannel::SendData(const void* data, unsigned int length, bool lowPriority) {
    if (m_shutDown) {
        CHANNEL_LOG(Trace, "virtual channel is shutdown return.");
        return -1;
    }
    return TransportChannel::SendData(data, length, lowPriority);
}

int CitrixVirtualChannel::ReceiveData(const void* data, unsigned int length) {
    CHANNEL_LOG(Trace, m_profile.name, "::ReceiveData()");
    if (m_shutDown) {
        CHANNEL_LOG(Trace, "virtual channel is shutdown return.");
        return -1;
    }
    return takePacket(data, length);
}

ICAWindowInfo CitrixVirtualChannel::GetICAWindowInfo() {
    const ICAWindowInfo info = HostCallbacks::GetInstance().windowInfo();
    CHANNEL_LOG(Trace, "hwnd:", static_cast<const void*>(info.hwnd), " xWinWidth:", info.xWinWidth,
                " yWinHeight:", info.yWinHeight, " xViewWidth:", info.xViewWidth,
                " yViewHeight:", info.yViewHeight, " xViewOffset:", info.xViewOffset,
                " yViewOffset:", info.yViewOffset);
    return info;
}

void CitrixVirtualChannel::shutdownSteps() {
    CHANNEL_LOG(Trace, "Shutdown received.");
    m_shutDown = true;
    if (!notifyShutdown()) return;
    removeRunner();
    cleanupSharedMemory();
    contained("Resetting the channel", [this] { ResetChannel(); });
    contained("Ending the acknowledgements", [] { Acknowledgement::Shutdown(); });
    contained("Ending the traffic", [this] { endTraffic(); });
    stopAndDeleteAgent();
    VirtualChannelLogger_flushBufferIfAllowed();
}

}  // namespace NorvoVirtualChannel::tc
