#include "VMWareVirtualChannel.h"

#include <utility>

#include "KRANRunner.h"

namespace NorvoVirtualChannel::tc {

namespace {
constexpr ChannelProfile kProfile{
    .type = kVMware,
    .maxMsgSize = maxPacketOf(kVMware),
    .packetsToSendPerBreak = 10,
    .breakTime = 10,
    .observerCalls = ObserverCalls::OneAtATime,
    .flow = {.slice = 3,
             .quantum = 3,
             .backlog = 10,
             .alone = 10,
             .lowWater = 6,
             .stage = 60,
             .first = 60},
    .name = "VMWareVirtualChannel",
    .source = "src/virtualchannel/src/tc/SharedLib/VMWareVirtualChannel",
};
}

VMWareVirtualChannel* VMWareVirtualChannel::GetInstance() {
    static VMWareVirtualChannel* const instance = new VMWareVirtualChannel;
    return instance;
}

VMWareVirtualChannel::VMWareVirtualChannel(WorkerThread::Pause pause)
    : GatedChannel(kProfile, std::move(pause)) {
    addRunner();
}

VMWareVirtualChannel::~VMWareVirtualChannel() { release(); }

int VMWareVirtualChannel::ReceiveData(const void* data, unsigned int length) {
    CHANNEL_LOG(Trace, m_profile.name, "::ReceiveData(", data, ", ", length, ")");
    return takePacket(data, length);
}

void VMWareVirtualChannel::AddObserver(Observer* observer) {
    CHANNEL_LOG(Trace, m_profile.name, "::AddObserver(", static_cast<void*>(observer), ")");
    setObserver(observer);
}

void VMWareVirtualChannel::RemoveObserver(Observer* observer) {
    CHANNEL_LOG(Trace, m_profile.name, "::RemoveObserver( ", static_cast<void*>(observer), ")");
    setObserver(nullptr);
}

void VMWareVirtualChannel::shutdownSteps() {
    CHANNEL_LOG(Trace, "Shutdown received.");
    notifyShutdown();
    removeRunner();
    cleanupSharedMemory();
    stopAndDeleteAgent();
}

}  // namespace NorvoVirtualChannel::tc
