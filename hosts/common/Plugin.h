#pragma once

#include <memory>
#include <string>

#include "LanguageAbstraction.h"

namespace hosts {

// The functions of the plug-in library, loaded at run time. The library stays
// loaded. A process has one plug-in, however many of these objects exist.
class Plugin {
public:
    // The installed name, found in the system's library path.
    static constexpr const char* kDefaultName = NORVO_PLUGIN_NAME;

    // Throws std::runtime_error, with the cause, when `path` cannot be loaded or is not a
    // plug-in.
    explicit Plugin(const std::string& path);

    decltype(&::InitialiseChannel) InitialiseChannel;
    decltype(&::ReceiveData) ReceiveData;
    decltype(&::ChannelActive) ChannelActive;
    decltype(&::Shutdown) Shutdown;
    decltype(&::getChannelName) getChannelName;
    decltype(&::LogMessage_VDI) LogMessage_VDI;

private:
    struct Closer {
        void operator()(void* handle) const;
    };
    std::unique_ptr<void, Closer> m_handle;
};

}  // namespace hosts
