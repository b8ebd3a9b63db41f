#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "IdleWatch.h"
#include "Plugin.h"
#include "XrdpApi.h"

namespace hosts {

// The plug-in's far end in an xrdp desktop: opens the channel whenever a client is attached, and
// closes it when the client has left. The thread in run() passes on incoming data.
class Agent {
public:
    // Throws std::runtime_error when the library or xrdp's library is missing.
    Agent(const std::string& library, int display);
    ~Agent();
    Agent(const Agent&) = delete;
    Agent& operator=(const Agent&) = delete;

    // Returns when `stop` (a descriptor) becomes readable, or when the desktop's session has ended.
    void run(int stop);

private:
    using Clock = std::chrono::steady_clock;

    static int append(const void* data, std::uint32_t length, std::uintptr_t, void* self);
    void send(const unsigned char* bytes, std::size_t size);
    // Connects the channel to the plug-in until that client leaves (0: any). False if it cannot be
    // opened.
    bool serve(int stop, std::uint64_t client);
    std::string passOnUntilTheEnd(int stop, std::uint64_t client);
    // Looks whether that client is still there. Empty while it is, or when the system does not
    // tell.
    std::string whyToClose(std::uint64_t client);
    bool sessionHasEnded();
    void setChannel(std::unique_ptr<XrdpApi::Channel> channel);
    // Prints why the agent waits, or that it no longer does, to standard output and the plug-in's
    // log, once per change.
    void say(const std::string& text);

    const int m_display;
    const XrdpApi m_api;
    const Plugin m_plugin;
    IdleWatch m_idleWatch;
    std::string m_said;
    bool m_hadSession = false;
    Clock::time_point m_lastSeen;

    std::mutex m_mutex;  // keeps the channel open while the plug-in sends
    std::unique_ptr<XrdpApi::Channel> m_channel;
    std::atomic<bool> m_leaving = false;
};

}  // namespace hosts
