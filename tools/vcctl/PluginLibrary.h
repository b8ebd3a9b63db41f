#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace vcctl {

// The plug-in as a remote-desktop client sees it: a shared library and its exported functions.
class PluginLibrary {
public:
    using AppendCallback = int (*)(const void* data, std::uint32_t length, std::uintptr_t flag,
                                   void* context);

    // Loads `path`, or when it is empty the library that belongs to this program (beside it in a
    // build, in the library directory of an installation). Throws CommandError.
    explicit PluginLibrary(const std::string& path);

    // Where the library that belongs to this program is; its bare name when it is in neither place.
    static std::string defaultPath();

    void (*InitialiseChannel)(AppendCallback, std::uint32_t kind, void* context);
    std::uint32_t (*ReceiveData)(unsigned char* data, std::uint32_t length);
    void (*ChannelActive)(std::uint32_t state);
    void (*Shutdown)();
    const char* (*getChannelName)();

private:
    struct Closer {
        void operator()(void* handle) const;
    };
    std::unique_ptr<void, Closer> m_handle;
};

}  // namespace vcctl
