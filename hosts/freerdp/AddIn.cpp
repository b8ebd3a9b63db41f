#include "AddIn.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string_view>
#include <utility>

#include "SessionNamespace.h"

namespace hosts {

namespace {

constexpr char kChannel[] = NORVO_CHANNEL_NAME;
// Unsent bytes in FreeRDP above which the plug-in waits.
constexpr std::size_t kMostUnsent = 64u << 10;

using Buffer = std::vector<unsigned char>;

void complain(const char* text, const char* detail = "") {
    std::fprintf(stderr, "%s: %s%s\n", kChannel, text, detail);
}

// FreeRDP 2 and 3 differ in the constness of ADDIN_ARGV.
std::string_view argumentAt(const ADDIN_ARGV& arguments, int index) {
    return arguments.argv[index];
}

}  // namespace

AddIn& AddIn::ofThisProcess() {
    static AddIn& addIn = *new AddIn;
    return addIn;
}

template <class Action>
void AddIn::serve(const Action& action) {
    const auto begun = Clock::now();
    try {
        action();
    } catch (const std::exception& error) {
        complain("", error.what());
    }
    m_longestCall = std::max(m_longestCall, Clock::now() - begun);
}

bool AddIn::begin(const CHANNEL_ENTRY_POINTS_FREERDP_EX& functions, void* initHandle) {
    {
        std::lock_guard lock(m_mutex);
        if (std::exchange(m_taken, true)) {
            complain("another session of this program has the channel; this one goes without it");
            return true;
        }
    }
    m_functions = functions;
    m_initHandle = initHandle;
    CHANNEL_DEF channel{};
    std::memcpy(channel.name, kChannel, sizeof kChannel);
    channel.options = CHANNEL_OPTION_INITIALIZED | CHANNEL_OPTION_ENCRYPT_RDP;
    if (loadPlugin(static_cast<const ADDIN_ARGV*>(functions.pExtendedData)) &&
        functions.pVirtualChannelInitEx(this, nullptr, initHandle, &channel, 1,
                                        VIRTUAL_CHANNEL_VERSION_WIN2000,
                                        &AddIn::onInitEvent) == CHANNEL_RC_OK)
        return true;
    std::lock_guard lock(m_mutex);
    m_taken = false;
    return false;
}

// /vc:NRVOCW,name=value,...: the first argument is the channel's name.
bool AddIn::loadPlugin(const ADDIN_ARGV* arguments) {
    try {
        std::string path = Plugin::kDefaultName;
        for (int i = 1; arguments && i < arguments->argc; ++i) {
            const std::string_view argument = argumentAt(*arguments, i);
            const std::string value(argument.substr(argument.find('=') + 1));
            if (argument.starts_with("library=") && !value.empty()) {
                path = value;
            } else if (argument.starts_with("namespace=")) {
                useSessionNamespace(value);
            } else {
                complain("known options are library=PATH and namespace=NAME, not ",
                         arguments->argv[i]);
                return false;
            }
        }
        m_plugin.emplace(path);
        return true;
    } catch (const std::exception& error) {
        complain(error.what());
        return false;
    }
}

VOID VCAPITYPE AddIn::onInitEvent(LPVOID self, LPVOID, UINT event, LPVOID, UINT) {
    auto& addIn = *static_cast<AddIn*>(self);
    addIn.serve([&] { addIn.onInitEvent(event); });
}

void AddIn::onInitEvent(UINT event) {
    switch (event) {
        case CHANNEL_EVENT_INITIALIZED:
            return initialise();
        case CHANNEL_EVENT_CONNECTED:
            return connect();
        case CHANNEL_EVENT_DISCONNECTED:
            return disconnect();
        case CHANNEL_EVENT_TERMINATED:
            return terminate();
        default:
            return;
    }
}

// Local processes find the agent from here on.
void AddIn::initialise() {
    m_plugin->InitialiseChannel(&AddIn::append, NORVO_CHANNEL_RDP, this);
    m_thread = std::make_unique<PluginThread>(*m_plugin, kRdpPacket, m_idleWatch);
}

// Also called when a session is resumed.
void AddIn::connect() {
    m_longestCall = {};
    if (!m_thread) return;
    char name[sizeof kChannel];
    std::memcpy(name, kChannel, sizeof name);
    {
        std::lock_guard lock(m_mutex);
        m_open = m_functions.pVirtualChannelOpenEx(m_initHandle, &m_openHandle, name,
                                                   &AddIn::onOpenEvent) == CHANNEL_RC_OK;
        m_unsent = 0;
        if (!m_open) {
            complain("the server does not offer the channel");
            return;
        }
    }
    m_plugin->LogMessage_VDI(NORVO_LEVEL_NOTABLE, "channel open");
    m_thread->setActive(true);
}

void AddIn::disconnect() {
    {
        std::lock_guard lock(m_mutex);
        if (!std::exchange(m_open, false)) return;
        m_functions.pVirtualChannelCloseEx(m_initHandle, m_openHandle);
    }
    // Before the plug-in is told: it may wait for the thread that waits in append().
    m_room.notify_all();
    m_thread->setActive(false);
    char text[80];
    const std::chrono::duration<double, std::milli> longest = m_longestCall;
    std::snprintf(text, sizeof text, "channel closed; the client waited at most %.2f ms a time",
                  longest.count());
    m_plugin->LogMessage_VDI(NORVO_LEVEL_NOTABLE, text);
}

void AddIn::terminate() {
    disconnect();
    m_thread.reset();
    std::lock_guard lock(m_mutex);
    m_taken = false;
}

VOID VCAPITYPE AddIn::onOpenEvent(LPVOID self, DWORD, UINT event, LPVOID data, UINT32 length,
                                  UINT32, UINT32) {
    auto& addIn = *static_cast<AddIn*>(self);
    addIn.serve([&] { addIn.onOpenEvent(event, data, length); });
}

void AddIn::onOpenEvent(UINT event, void* data, std::size_t length) {
    switch (event) {
        case CHANNEL_EVENT_DATA_RECEIVED:
            if (m_thread) m_thread->receive({static_cast<const unsigned char*>(data), length});
            return;
        case CHANNEL_EVENT_WRITE_COMPLETE:
        case CHANNEL_EVENT_WRITE_CANCELLED:
            return written(data);
        default:
            return;
    }
}

void AddIn::written(void* buffer) {
    const std::unique_ptr<Buffer> done(static_cast<Buffer*>(buffer));
    if (!done) return;
    {
        std::lock_guard lock(m_mutex);
        m_unsent -= std::min(m_unsent, done->size());
    }
    m_room.notify_one();
}

int AddIn::append(const void* data, std::uint32_t length, std::uintptr_t, void* self) {
    auto& addIn = *static_cast<AddIn*>(self);
    addIn.m_idleWatch.noteSent();
    try {
        addIn.write(data, length);
    } catch (const std::exception& error) {
        complain("a packet is lost: ", error.what());
    }
    return 0;
}

void AddIn::write(const void* data, std::uint32_t length) {
    const auto* bytes = static_cast<const unsigned char*>(data);
    auto buffer = std::make_unique<Buffer>(bytes, bytes + length);
    std::unique_lock lock(m_mutex);
    m_room.wait(lock, [&] { return !m_open || m_unsent < kMostUnsent; });
    if (!m_open) return;
    const UINT result = m_functions.pVirtualChannelWriteEx(m_initHandle, m_openHandle,
                                                           buffer->data(), length, buffer.get());
    if (result != CHANNEL_RC_OK) return;
    m_unsent += length;
    static_cast<void>(buffer.release());  // until FreeRDP returns it
}

}  // namespace hosts

extern "C" __attribute__((visibility("default"))) BOOL VCAPITYPE
VirtualChannelEntryEx(PCHANNEL_ENTRY_POINTS_EX entryPoints, PVOID initHandle) {
    const auto* functions = reinterpret_cast<const CHANNEL_ENTRY_POINTS_FREERDP_EX*>(entryPoints);
    if (functions->cbSize < sizeof *functions ||
        functions->MagicNumber != FREERDP_CHANNEL_MAGIC_NUMBER)
        return FALSE;
    try {
        return hosts::AddIn::ofThisProcess().begin(*functions, initHandle) ? TRUE : FALSE;
    } catch (const std::exception& error) {
        hosts::complain(error.what());
        return FALSE;
    }
}
