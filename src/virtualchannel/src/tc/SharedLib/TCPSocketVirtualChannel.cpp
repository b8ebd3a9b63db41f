#include "TCPSocketVirtualChannel.h"

#include <utility>

#include "KRANRunner.h"

namespace NorvoVirtualChannel::tc {

using VDIFrameworkCommon::SplitBytes;

namespace {
constexpr ChannelProfile kProfile{
    .type = kTcpSocket,
    .maxMsgSize = maxPacketOf(kTcpSocket),
    .packetsToSendPerBreak = 0,
    .breakTime = 0,
    .observerCalls = ObserverCalls::OneAtATime,
    .flow = {.slice = 12,
             .quantum = 46,
             .backlog = 256,
             .alone = 768,
             .lowWater = 170,
             .stage = 92,
             .first = 24},
    .name = "TCPSocketVirtualChannel",
    .source = "src/virtualchannel/src/tc/SharedLib/TCPSocketVirtualChannel",
};
}

TCPSocketVirtualChannel* TCPSocketVirtualChannel::GetInstance() {
    static TCPSocketVirtualChannel* const instance = new TCPSocketVirtualChannel;
    return instance;
}

TCPSocketVirtualChannel::TCPSocketVirtualChannel(WorkerThread::Pause pause)
    : GatedChannel(kProfile, std::move(pause)) {
    addRunner();
}

TCPSocketVirtualChannel::~TCPSocketVirtualChannel() { release(); }

int TCPSocketVirtualChannel::SendData(const void* data, unsigned int length, bool /*lowPriority*/) {
    return TransportChannel::SendData(data, length, false);
}

StreamSend TCPSocketVirtualChannel::SendStreamData(const SplitBytes& message, bool /*lowPriority*/,
                                                   const std::function<bool()>& goesOn) {
    return TransportChannel::SendStreamData(message, false, goesOn);
}

StreamSend TCPSocketVirtualChannel::SendStreamDataAtOnce(const SplitBytes& message,
                                                         bool /*lowPriority*/) {
    return TransportChannel::SendStreamDataAtOnce(message, false);
}

void TCPSocketVirtualChannel::shutdownSteps() {
    close();
    CHANNEL_LOG(Trace, "Shutdown received.");
    notifyShutdown();
    removeRunner();
    cleanupSharedMemory();
    deleteAgent();
}

}  // namespace NorvoVirtualChannel::tc
