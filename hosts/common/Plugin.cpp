#include "Plugin.h"

#include <dlfcn.h>

#include <stdexcept>

namespace hosts {

namespace {

template <class Function>
void load(void* handle, const char* name, Function& function) {
    function = reinterpret_cast<Function>(dlsym(handle, name));
    if (!function)
        throw std::runtime_error(std::string("the library does not export '") + name +
                                 "': it is not a virtual-channel plug-in");
}

}  // namespace

void Plugin::Closer::operator()(void* handle) const { dlclose(handle); }

Plugin::Plugin(const std::string& path) : m_handle(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)) {
    if (!m_handle) {
        const char* why = dlerror();
        throw std::runtime_error("cannot load the plug-in library: " +
                                 std::string(why ? why : path.c_str()));
    }
    load(m_handle.get(), "InitialiseChannel", InitialiseChannel);
    load(m_handle.get(), "ReceiveData", ReceiveData);
    load(m_handle.get(), "ChannelActive", ChannelActive);
    load(m_handle.get(), "Shutdown", Shutdown);
    load(m_handle.get(), "getChannelName", getChannelName);
    load(m_handle.get(), "LogMessage_VDI", LogMessage_VDI);
}

}  // namespace hosts
