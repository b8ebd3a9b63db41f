#include "PluginLog.h"

#include <cstdlib>
#include <string>

#include "Log.h"

// The host knows this log by the function it calls.
NORVO_LOG_SOURCE("src/virtualchannel/src/tc/SharedLib/LanguageAbstraction")

namespace NorvoVirtualChannel::tc {

namespace {

std::string logFilePath() {
    const char* home = std::getenv("HOME");
    if (!home || !*home) return {};
    return std::string(home) + "/Library/Logs/norvouvdi/" + "VirtualChannel.log";
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
    constexpr int kSeverities[] = {5, 6, 4, 3, 2, 1};
    initialiseOnce();
    if (level < 1 || level > 6) return;
    const int severity = kSeverities[level - 1];
    if (!KLT::kltlogger::isEnabled(severity)) return;
    KLT::kltlogger::write(severity, kNorvoLogSource, __LINE__, "LogMessage_VDI",
                          message ? message : "(null)");
}

}  // namespace NorvoVirtualChannel::tc
