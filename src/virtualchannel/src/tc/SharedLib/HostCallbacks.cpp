#include "HostCallbacks.h"

#include <algorithm>

#include "PluginLog.h"
#include "ReentryMark.h"

namespace NorvoVirtualChannel::tc {

using VDIFrameworkCommon::LocalLock;

namespace {
constexpr char kQuestion = 0;  // its address marks a thread that is inside a host callback
}

HostCallbacks& HostCallbacks::GetInstance() {
    static HostCallbacks* const only = new HostCallbacks;  // outlives the threads that use it
    return *only;
}

const HostCallbacks::Append* HostCallbacks::setAppendBuffer(AppendBufferFunc append,
                                                            void* context) {
    LocalLock lock(m_mutex);
    const auto known = std::find_if(m_appends.begin(), m_appends.end(), [&](const Append& one) {
        return one.function == append && one.context == context;
    });
    return m_append.exchange(
        known != m_appends.end() ? &*known : &m_appends.emplace_back(Append{append, context}));
}

std::uint32_t HostCallbacks::appendData(const void* data, std::uint32_t length, bool flag) {
    if (flag) logMessage(NORVO_LEVEL_TRACE, "AppendDataToBuffer()");
    if (!m_active) {
        logMessage(NORVO_LEVEL_EVENT, "channel_Active = false, will NOT appendBuffer");
        return 0;
    }
    const Append* const append = m_append;
    if (append && append->function) {
        append->function(data, length, flag ? 1 : 0, append->context);
    } else {
        logMessage(NORVO_LEVEL_ERROR, "appendBuffer is NULL");
    }
    return 0;
}

int HostCallbacks::isSeamlessMode() const {
    const IsSeamlessModeFunc function = m_isSeamlessMode;
    if (!function) {
        logMessage(NORVO_LEVEL_ERROR, "_IsSeamlessMode is NULL");
        return -1;
    }
    const ReentryMark mark(&kQuestion);
    return function();
}

ICAWindowInfo HostCallbacks::windowInfo() const {
    const GetWindowInfoFunc function = m_getWindowInfo;
    if (!function) {
        logMessage(NORVO_LEVEL_EVENT, "_GetICAWindowInfo is NULL");
        return {};
    }
    const ReentryMark mark(&kQuestion);
    return function();
}

void* HostCallbacks::clientWindow(void* serverWindow) const {
    const GetClientWindowHandleFromServerWindowHandleFunc function = m_getClientWindow;
    if (!function) {
        logMessage(NORVO_LEVEL_ERROR, "_GetClientWindowHandleFromServerWindowHandle is NULL");
        return nullptr;
    }
    const ReentryMark mark(&kQuestion);
    return function(serverWindow);
}

bool HostCallbacks::isInsideQueryCallback() { return ReentryMark::isSet(&kQuestion); }

}  // namespace NorvoVirtualChannel::tc
