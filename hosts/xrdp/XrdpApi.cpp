#include "XrdpApi.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <charconv>
#include <cstring>
#include <filesystem>
#include <set>
#include <stdexcept>

namespace hosts {

namespace {

// It is in its own folder, which the system does not search.
constexpr const char* kPlaces[] = {
    "libxrdpapi.so.0", NORVO_XRDP_LIBRARY, "/usr/lib/xrdp/libxrdpapi.so.0",
    "/usr/lib64/xrdp/libxrdpapi.so.0", "/usr/local/lib/xrdp/libxrdpapi.so.0"};

void* loadFromItsPlaces() {
    for (const char* place : kPlaces) {
        if (void* library = dlopen(place, RTLD_NOW | RTLD_LOCAL)) return library;
    }
    throw std::runtime_error("xrdp's library libxrdpapi.so.0 is not there: is xrdp installed?");
}

template <class Function>
void load(void* library, const char* name, Function& function) {
    function = reinterpret_cast<Function>(dlsym(library, name));
    if (!function)
        throw std::runtime_error(std::string("xrdp's library does not export '") + name + "'");
}

std::set<int> unixSockets() {
    std::set<int> found;
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", ignored)) {
        const std::string name = entry.path().filename();
        int fd = -1;
        std::from_chars(name.data(), name.data() + name.size(), fd);
        sockaddr_storage address{};
        socklen_t length = sizeof address;
        if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0 &&
            address.ss_family == AF_UNIX)
            found.insert(fd);
    }
    return found;
}

}  // namespace

void XrdpApi::Closer::operator()(void* library) const { dlclose(library); }

XrdpApi::XrdpApi() : m_library(loadFromItsPlaces()) {
    load(m_library.get(), "WTSVirtualChannelOpen", m_open);
    load(m_library.get(), "WTSVirtualChannelQuery", m_query);
    load(m_library.get(), "WTSFreeMemory", m_freeMemory);
    load(m_library.get(), "WTSVirtualChannelClose", m_close);
}

std::unique_ptr<XrdpApi::Channel> XrdpApi::open(const char* name) const {
    constexpr unsigned int kCurrentSession = 0xffffffff;
    const std::set<int> before = unixSockets();
    if (void* handle = m_open(nullptr, kCurrentSession, name)) {
        const int socket = socketOf(handle);
        std::unique_ptr<Channel> channel(new Channel(*this, handle, socket));
        if (socket >= 0) return channel;
    }
    // On failure it leaks its socket.
    for (const int fd : unixSockets()) {
        if (!before.contains(fd)) ::close(fd);
    }
    return nullptr;
}

int XrdpApi::socketOf(void* handle) const {
    constexpr int kFileHandle = 1;
    void* buffer = nullptr;
    unsigned int size = 0;
    int socket = -1;
    if (!m_query(handle, kFileHandle, &buffer, &size) || !buffer || size < sizeof socket) return -1;
    std::memcpy(&socket, buffer, sizeof socket);
    m_freeMemory(buffer);
    fcntl(socket, F_SETFD, FD_CLOEXEC);
    fcntl(socket, F_SETFL, fcntl(socket, F_GETFL) | O_NONBLOCK);
    return socket;
}

XrdpApi::Channel::~Channel() { m_api.m_close(m_handle); }

}  // namespace hosts
