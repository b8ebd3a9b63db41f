// The plug-in at the server's end of an RDP channel.
#pragma once

#include <freerdp/channels/wtsvc.h>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "Plugin.h"
#include "PluginThread.h"

namespace hosts {

// Connects the plug-in to the channel of one client at a time, the latest one.
//
// Outgoing data waits in a buffer of 64 KiB for the thread of the client's connection, as
// FreeRDP accepts it only on that thread and would queue it without limit.
class FarEnd {
public:
    explicit FarEnd(const std::string& library);
    ~FarEnd();
    FarEnd(const FarEnd&) = delete;
    FarEnd& operator=(const FarEnd&) = delete;

    // `outgoing` is set when there is something for send(). Replaces the previous client.
    void join(HANDLE channel, HANDLE outgoing);
    // Does nothing if another client is joined.
    void leave(HANDLE channel);
    // On the connection's thread: pass the plug-in's data to FreeRDP, and vice versa.
    void send(HANDLE channel);
    void receive(HANDLE channel);

private:
    static int append(const void* data, std::uint32_t length, std::uintptr_t, void* self);

    Plugin m_plugin;
    IdleWatch m_idleWatch;
    PluginThread m_thread;

    std::mutex m_mutex;  // guards the members below
    std::condition_variable m_room;
    HANDLE m_channel = nullptr;
    HANDLE m_outgoing = nullptr;
    std::deque<std::vector<unsigned char>> m_box;
    std::size_t m_inBox = 0;
};

}  // namespace hosts
