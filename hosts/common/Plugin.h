#pragma once

#include <memory>
#include <string>

#include "LanguageAbstraction.h"

namespace hosts {

// What a host uses of the plug-in library, which it only loads at run time. The library stays
// loaded. A process has one plug-in, whatever number of these.
class Plugin {
public:
    // As its package installs it: the system's search finds it.
    static constexpr const char* kDefaultName = NORVO_PLUGIN_NAME;

    // Throws std::runtime_error, with what is wrong, when `path` cannot be loaded or is not a
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
