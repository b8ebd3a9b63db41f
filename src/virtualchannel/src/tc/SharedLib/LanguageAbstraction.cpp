#include "LanguageAbstraction.h"

#include <atomic>
#include <cstddef>
#include <exception>
#include <new>
#include <system_error>

#include "CitrixVirtualChannel.h"
#include "Contained.h"
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
using VDIFrameworkCommon::contained;
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

// The channel of a kind, made on first use; null for an unknown kind.
TransportChannel* channelOf(std::uint32_t kind) {
    using GetChannel = TransportChannel* (*)();
    constexpr GetChannel kChannels[] = {
        []() -> TransportChannel* { return CitrixVirtualChannel::GetInstance(); },
        []() -> TransportChannel* { return VMWareVirtualChannel::GetInstance(); },
        []() -> TransportChannel* { return RDPVirtualChannel::GetInstance(); },
        []() -> TransportChannel* { return TCPSocketVirtualChannel::GetInstance(); },
    };
    return kind >= 1 && kind <= std::size(kChannels) ? kChannels[kind - 1]() : nullptr;
}

// The channel that the host has chosen.
TransportChannel* currentChannel() { return channelOf(g_kind); }

// Like contained(), but lets the error through that no thread could be created.
template <class Call>
void containedButForThreads(const char* what, const Call& call) {
    try {
        call();
    } catch (const std::system_error&) {
        throw;
    } catch (const std::exception& failure) {
        VDIFrameworkCommon::reportFailure(what, failure.what());
    }
}

HostCallbacks& host() { return HostCallbacks::GetInstance(); }

// A channel that cannot be made does not replace a running one. One that has been made may send at
// once, so it must find its callback.
void setUp(AppendBufferFunc append, std::uint32_t kind, void* context) {
    TransportChannel* const channel = channelOf(kind);
    const auto* const earlierAppend = host().setAppendBuffer(append, context);
    const std::uint32_t earlierKind = g_kind.exchange(kind);
    try {
        if (channel) channel->OnChannelInitialize();
    } catch (...) {
        g_kind = earlierKind;
        host().restoreAppendBuffer(earlierAppend);
        throw;
    }
}

// Never destroyed: destroying a thread that the host left running would terminate the process.
HostThread& pluginThread() {
    static HostThread* const only = new HostThread;
    return *only;
}

HostThread& watchdogThread() {
    static HostThread* const only = new HostThread;
    return *only;
}

}  // namespace

// ---- The channel

void InitialiseChannel(AppendBufferFunc append, uint32_t kind, void* context) {
    containedButForThreads("InitialiseChannel", [&] {
        pinLibrary();
        VDIClientInfo::getInstance().setClientType(VDIFrameworkCommon::VDIClientType::Crews);
        logMessage(NORVO_LEVEL_EVENT, "InitialiseChannel()");
        logMessage(NORVO_LEVEL_EVENT, VDIClientInfo::getInstance().getClientName().c_str());
        if (HostCallbacks::isInsideQueryCallback()) {
            logMessage(NORVO_LEVEL_WARNING, "InitialiseChannel() inside a callback is ignored.");
            return;
        }
        setUp(append, kind, context);
    });
}

uint32_t ReceiveData(unsigned char* data, uint32_t length) {
    uint32_t result = 0;
    contained("ReceiveData", [&] {
        logMessage(NORVO_LEVEL_TRACE, "ReceiveData()");
        TransportChannel* const channel = currentChannel();
        result = channel ? static_cast<uint32_t>(channel->ReceiveData(data, length)) : g_kind - 1;
    });
    return result;
}

void ChannelActive(uint32_t state) {
    contained("ChannelActive", [&] {
        if (state <= 1) host().setActive(state == 1);
        if (TransportChannel* const channel = currentChannel()) {
            channel->ChannelActive(static_cast<int>(state));
        }
    });
}

uint32_t AppendDataToBuffer(const void* data, uint32_t length, int flag) {
    contained("AppendDataToBuffer", [&] { host().appendData(data, length, flag != 0); });
    return 0;
}

void Shutdown(void) {
    contained("Shutdown", [] {
        contained("Writing the log", [] { VirtualChannelLogger_flush(); });
        if (TransportChannel* const channel = currentChannel()) {
            channel->Shutdown();
            contained("Writing the log", [] { VirtualChannelLogger_flush(); });
        }
    });
}

const char* getChannelName(void) { return NORVO_CHANNEL_NAME; }

void SetIsSeamlessModeFunc(IsSeamlessModeFunc function) { host().setIsSeamlessMode(function); }

void SetGetWindowInfoFunc(GetWindowInfoFunc function) { host().setGetWindowInfo(function); }

void SetGetClientWindowHandleFromServerWindowHandleFunc(
    GetClientWindowHandleFromServerWindowHandleFunc function) {
    host().setGetClientWindow(function);
}

int IsSeamlessMode_(void) {
    int answer = -1;
    contained("IsSeamlessMode_", [&] { answer = host().isSeamlessMode(); });
    return answer;
}

ICAWindowInfo GetICAWindowInfo_(void) {
    ICAWindowInfo answer{};
    contained("GetICAWindowInfo_", [&] { answer = host().windowInfo(); });
    return answer;
}

void* GetClientWindowHandleFromServerWindowHandle_(void* serverWindow) {
    void* answer = nullptr;
    contained("GetClientWindowHandleFromServerWindowHandle_",
              [&] { answer = host().clientWindow(serverWindow); });
    return answer;
}

// ---- Services for the host

MutexHandle MutexCreate(void) { return new (std::nothrow) NorvoMutex; }

void MutexLock(MutexHandle* mutex) {
    contained("MutexLock", [&] {
        if (NorvoMutex* const target = mutexIn(mutex)) target->lock();
    });
}

bool MutexTryLock(MutexHandle* mutex) {
    bool taken = false;
    contained("MutexTryLock", [&] {
        NorvoMutex* const target = mutexIn(mutex);
        taken = target && target->tryLock();
    });
    return taken;
}

void MutexUnlock(MutexHandle* mutex) {
    contained("MutexUnlock", [&] {
        if (NorvoMutex* const target = mutexIn(mutex)) target->unlock();
    });
}

void MutexDestroy(MutexHandle mutex) { delete mutex; }

void PluginThreadCreate(void (*entry)()) {
    containedButForThreads("PluginThreadCreate", [&] { pluginThread().create(entry); });
}

void PluginThreadDestroy(void) {
    contained("PluginThreadDestroy", [] { pluginThread().destroy(); });
}

void WatchdogThreadCreate(void (*entry)()) {
    containedButForThreads("WatchdogThreadCreate", [&] { watchdogThread().create(entry); });
}

void WatchdogThreadDestroy() {
    contained("WatchdogThreadDestroy", [] { watchdogThread().destroy(); });
}

void LogMessage_VDI(int level, const char* message) {
    contained("LogMessage_VDI", [&] { logMessage(level, message); });
}
