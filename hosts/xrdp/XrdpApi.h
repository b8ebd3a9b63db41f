#pragma once

#include <memory>
#include <string>

namespace hosts {

// xrdp's library for programs in its sessions, which comes without a header. It is loaded
// at run time, so that the agent can say what is missing. Not thread-safe.
class XrdpApi {
public:
    // Throws std::runtime_error when it cannot be loaded.
    XrdpApi();

    // The channel `name` of this process's DISPLAY as a socket, non-blocking and close-on-exec;
    // valid while the object lives. Empty, with nothing left open, when there is no such channel.
    class Channel {
    public:
        ~Channel();
        Channel(const Channel&) = delete;
        Channel& operator=(const Channel&) = delete;
        int socket() const { return m_socket; }

    private:
        friend class XrdpApi;
        Channel(const XrdpApi& api, void* handle, int socket)
            : m_api(api), m_handle(handle), m_socket(socket) {}
        const XrdpApi& m_api;
        void* const m_handle;
        const int m_socket;
    };
    std::unique_ptr<Channel> open(const char* name) const;

private:
    int socketOf(void* handle) const;

    struct Closer {
        void operator()(void* library) const;
    };
    std::unique_ptr<void, Closer> m_library;
    void* (*m_open)(void* server, unsigned int session, const char* name);
    int (*m_query)(void* channel, int what, void** buffer, unsigned int* size);
    void (*m_freeMemory)(void* buffer);
    int (*m_close)(void* channel);
};

}  // namespace hosts
