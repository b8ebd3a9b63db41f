#include "PluginLibrary.h"

#include <dlfcn.h>

#include <filesystem>
#include <vector>

#include "CommandError.h"
#include "OwnPath.h"
#include "VcctlVersion.h"

namespace vcctl {

namespace {

template <class Function>
void load(void* handle, const char* name, Function*& function) {
    function = reinterpret_cast<Function*>(dlsym(handle, name));
    if (!function) {
        throw CommandError(std::string("the library does not export '") + name +
                           "': it is not a virtual-channel plug-in");
    }
}

}  // namespace

void PluginLibrary::Closer::operator()(void* handle) const { dlclose(handle); }

std::string PluginLibrary::defaultPath() {
    const std::filesystem::path program = support::ownPath();
    const std::vector<std::filesystem::path> places{
        program.parent_path() / VCCTL_LIBRARY_FROM_BUILD,
        program.parent_path() / VCCTL_LIBRARY_FROM_INSTALL};
    for (const auto& place : places) {
        std::error_code ignored;
        const auto path = (place / VCCTL_LIBRARY_NAME).lexically_normal();
        if (std::filesystem::exists(path, ignored)) return path.string();
    }
    return VCCTL_LIBRARY_NAME;
}

PluginLibrary::PluginLibrary(const std::string& path) {
    const std::string chosen = path.empty() ? defaultPath() : path;
    m_handle.reset(dlopen(chosen.c_str(), RTLD_NOW | RTLD_LOCAL));
    if (!m_handle) {
        const char* why = dlerror();
        throw CommandError("cannot load the plug-in library: " + std::string(why ? why : chosen) +
                           (path.empty() ? ". --library PATH says where it is" : ""));
    }
    load(m_handle.get(), "InitialiseChannel", InitialiseChannel);
    load(m_handle.get(), "ReceiveData", ReceiveData);
    load(m_handle.get(), "ChannelActive", ChannelActive);
    load(m_handle.get(), "Shutdown", Shutdown);
    load(m_handle.get(), "getChannelName", getChannelName);
}

}  // namespace vcctl
