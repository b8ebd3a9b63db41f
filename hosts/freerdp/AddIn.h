// The plug-in inside a FreeRDP client, as an add-in for the static virtual channel NRVOCW.
#pragma once

#include <freerdp/settings.h>
#include <freerdp/svc.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "IdleWatch.h"
#include "Plugin.h"
#include "PluginThread.h"

namespace hosts {

// One per process, never destroyed: FreeRDP returns buffers even after the session's end. It
// serves one session at a time, as the plug-in has one channel.
//
// FreeRDP calls on its connection's thread, which also draws: nothing blocks there, except to end
// the plug-in at the session's end. The plug-in calls append() on its own thread, which
// waits while FreeRDP has much to send, as FreeRDP's own queue has no limit.
class AddIn {
public:
    static AddIn& ofThisProcess();

    // Starts a new session with FreeRDP's functions and the user's arguments after the channel's
    // name. False if the library cannot be used; then FreeRDP refuses to connect. A second
    // concurrent session of this process goes without the channel.
    bool begin(const CHANNEL_ENTRY_POINTS_FREERDP_EX& functions, void* initHandle);

private:
    using Clock = std::chrono::steady_clock;

    static VOID VCAPITYPE onInitEvent(LPVOID self, LPVOID, UINT event, LPVOID, UINT);
    static VOID VCAPITYPE onOpenEvent(LPVOID self, DWORD, UINT event, LPVOID data, UINT32 length,
                                      UINT32, UINT32);
    static int append(const void* data, std::uint32_t length, std::uintptr_t, void* self);

    bool loadPlugin(const ADDIN_ARGV* arguments);
    void onInitEvent(UINT event);
    void initialise();
    void connect();
    void disconnect();
    void terminate();
    void onOpenEvent(UINT event, void* data, std::size_t length);
    void written(void* buffer);
    void write(const void* data, std::uint32_t length);
    // Runs `action` for FreeRDP, which is written in C: throws nothing, and records the time.
    template <class Action>
    void serve(const Action& action);

    CHANNEL_ENTRY_POINTS_FREERDP_EX m_functions{};
    void* m_initHandle = nullptr;
    std::optional<Plugin> m_plugin;
    IdleWatch m_idleWatch;
    std::unique_ptr<PluginThread> m_thread;
    Clock::duration m_longestCall{};  // of FreeRDP's while it was connected

    std::mutex m_mutex;  // guards the members below, and is held while writing and closing
    std::condition_variable m_room;
    bool m_taken = false;
    bool m_open = false;
    DWORD m_openHandle = 0;
    std::size_t m_unsent = 0;
};

}  // namespace hosts
