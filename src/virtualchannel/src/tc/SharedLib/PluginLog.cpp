#include "PluginLog.h"

#include <cstdlib>
#include <string>

#include "Log.h"

namespace NorvoVirtualChannel::tc {

namespace {

// Names the source of the function that the host calls.
constexpr char kSource[] = "src/virtualchannel/src/tc/SharedLib/LanguageAbstraction";

std::string logFilePath() {
    const char* home = std::getenv("HOME");
    if (!home || !*home) return {};
    return std::string(home) + "/Library/Logs/norvouvdi/VirtualChannel.log";
}

void initialiseOnce() {
    static const bool initialised = [] {
        VirtualChannelLogger_init(logFilePath());
        return true;
    }();
    static_cast<void>(initialised);
}

}  // namespace

void logMessage(int level, const char* message) {
    using namespace KLT::kltlogger;
    constexpr Severity kSeverities[] = {Info, Trace, Notice, Warning, Error, Fatal};
    initialiseOnce();
    if (level < host_level::kEvent || level > host_level::kFatal) return;
    const Severity severity = kSeverities[level - host_level::kEvent];
    if (!isEnabled(severity)) return;
    write(severity, kSource, __LINE__, "LogMessage_VDI", message ? message : "(null)");
}

}  // namespace NorvoVirtualChannel::tc
