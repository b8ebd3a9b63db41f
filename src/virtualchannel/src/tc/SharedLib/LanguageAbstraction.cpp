#include "LanguageAbstraction.h"

#include <atomic>
#include <cstddef>

#include "CitrixVirtualChannel.h"
#include "HostCallbacks.h"
#include "HostMutex.h"
#include "HostThread.h"
#include "PinLibrary.h"
#include "PluginLog.h"
#include "RDPVirtualChannel.h"
#include "TCPSocketVirtualChannel.h"
#include "VDIClientInfo.h"
#include "VMWareVirtualChannel.h"

using namespace NorvoVirtualChannel::tc;
using VDIFrameworkCommon::VDIClientInfo;

static_assert(offsetof(ICAWindowInfo, hwnd) == 0 && offsetof(ICAWindowInfo, reserved) == 8 &&
              offsetof(ICAWindowInfo, xWinWidth) == 12 &&
              offsetof(ICAWindowInfo, yWinHeight) == 16 &&
              offsetof(ICAWindowInfo, xViewWidth) == 20 &&
              offsetof(ICAWindowInfo, yViewHeight) == 24 &&
              offsetof(ICAWindowInfo, xViewOffset) == 28 &&
              offsetof(ICAWindowInfo, yViewOffset) == 32 &&
              offsetof(ICAWindowInfo, padding) == 36 && sizeof(ICAWindowInfo) == 40);

static_assert(NORVO_CHANNEL_CITRIX == NorvoVirtualChannel::kCitrix &&
              NORVO_CHANNEL_VMWARE == NorvoVirtualChannel::kVMware &&
              NORVO_CHANNEL_RDP == NorvoVirtualChannel::kRdp &&
              NORVO_CHANNEL_TCP == NorvoVirtualChannel::kTcpSocket);

namespace {

std::atomic<std::uint32_t> g_kind{0};

// The channel that the host has chosen, made on first use; null for an unknown kind.
TransportChannel* currentChannel() {
    using GetChannel = TransportChannel* (*)();
    constexpr GetChannel kChannels[] = {
        []() -> TransportChannel* { return CitrixVirtualChannel::GetInstance(); },
        []() -> TransportChannel* { return VMWareVirtualChannel::GetInstance(); },
        []() -> TransportChannel* { return RDPVirtualChannel::GetInstance(); },
        []() -> TransportChannel* { return TCPSocketVirtualChannel::GetInstance(); },
    };
    const std::uint32_t kind = g_kind;
    return kind >= 1 && kind <= std::size(kChannels) ? kChannels[kind - 1]() : nullptr;
}

HostCallbacks& host() { return HostCallbacks::GetInstance(); }

// Never destroyed: a thread that the host has left running must not end the process at its exit.
HostThread& pluginThread() {
    static HostThread* const only = new HostThread;
    return *only;
}

HostThread& watchdogThread() {
    static HostThread* const only = new HostThread;
    return *only;
}

}  // namespace

void InitialiseChannel(AppendBufferFunc append, uint32_t kind, void* context) {
    pinLibrary();
    VDIClientInfo::getInstance().setClientType(VDIFrameworkCommon::VDIClientType::Crews);
    logMessage(host_level::kEvent, "InitialiseChannel()");
    logMessage(host_level::kEvent, VDIClientInfo::getInstance().getClientName().c_str());
    host().setAppendBuffer(append, context);
    g_kind = kind;
    try {
        if (TransportChannel* const channel = currentChannel()) channel->OnChannelInitialize();
    } catch (...) {
        g_kind = 0;  // or the next call would try again, and throw where none is expected
        throw;
    }
}

uint32_t ReceiveData(unsigned char* data, uint32_t length) {
    logMessage(host_level::kTrace, "ReceiveData()");
    TransportChannel* const channel = currentChannel();
    return channel ? static_cast<uint32_t>(channel->ReceiveData(data, length)) : g_kind - 1;
}

void ChannelActive(uint32_t state) {
    if (state <= 1) host().setActive(state == 1);
    if (TransportChannel* const channel = currentChannel()) {
        channel->ChannelActive(static_cast<int>(state));
    }
}

uint32_t AppendDataToBuffer(const void* data, uint32_t length, int flag) {
    return host().appendData(data, length, flag != 0);
}

void Shutdown(void) {
    VirtualChannelLogger_flush();
    if (TransportChannel* const channel = currentChannel()) channel->Shutdown();
}

const char* getChannelName(void) { return "NRVOCW"; }

void SetIsSeamlessModeFunc(IsSeamlessModeFunc function) { host().setIsSeamlessMode(function); }

void SetGetWindowInfoFunc(GetWindowInfoFunc function) { host().setGetWindowInfo(function); }

void SetGetClientWindowHandleFromServerWindowHandleFunc(
    GetClientWindowHandleFromServerWindowHandleFunc function) {
    host().setGetClientWindow(function);
}

int IsSeamlessMode_(void) { return host().isSeamlessMode(); }

ICAWindowInfo GetICAWindowInfo_(void) { return host().windowInfo(); }

void* GetClientWindowHandleFromServerWindowHandle_(void* serverWindow) {
    return host().clientWindow(serverWindow);
}

MutexHandle MutexCreate(void) { return new NorvoMutex; }

void MutexLock(MutexHandle* mutex) {
    if (NorvoMutex* const target = mutexIn(mutex)) target->lock();
}

bool MutexTryLock(MutexHandle* mutex) {
    NorvoMutex* const target = mutexIn(mutex);
    return target && target->tryLock();
}

void MutexUnlock(MutexHandle* mutex) {
    if (NorvoMutex* const target = mutexIn(mutex)) target->unlock();
}

void MutexDestroy(MutexHandle mutex) { delete mutex; }

void PluginThreadCreate(void (*entry)()) { pluginThread().create(entry); }

void PluginThreadDestroy(void) { pluginThread().destroy(); }

void WatchdogThreadCreate(void (*entry)()) { watchdogThread().create(entry); }

void WatchdogThreadDestroy() { watchdogThread().destroy(); }

void LogMessage_VDI(int level, const char* message) { logMessage(level, message); }
