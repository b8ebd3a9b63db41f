#include "PluginLog.h"

#include <cstdio>
#include <cstdlib>
#include <string>

#include "Log.h"
#include "Namespace.h"

namespace NorvoVirtualChannel::tc {

namespace {

// Names the source of the function that the host calls.
constexpr char kSource[] = "src/virtualchannel/src/tc/SharedLib/LanguageAbstraction";

std::string logFilePath() {
    const char* home = std::getenv("HOME");
    if (!home || !*home) return {};
    return std::string(home) + "/Library/Logs/norvouvdi/VirtualChannel.log";
}

// A host that starts with a value that does not hold would be searched for the reason in vain.
void tellUnsuitableEnvironment() {
    const char* const level = std::getenv("NORVO_VDI_LOG_LEVEL");
    if (level && !KLT::kltlogger::thresholdIn(level))
        NORVO_LOG(Warning, "NORVO_VDI_LOG_LEVEL is '", level,
                  "', which is not a number from 0 to 6: the default holds.");
    const char* const space = std::getenv("NORVO_VDI_NAMESPACE");
    const std::string& used = VDIFrameworkCommon::sessionNamespace();
    if (space && used != space)
        NORVO_LOG(Warning, "NORVO_VDI_NAMESPACE is '", space, "': '", used, "' is used.");
}

void initialiseOnce() {
    static const bool initialised = [] {
        const std::string path = logFilePath();
        if (!VirtualChannelLogger_init(path))
            std::fprintf(stderr, "virtual channel: cannot write %s: nothing is logged\n",
                         path.c_str());
        tellUnsuitableEnvironment();
        return true;
    }();
    static_cast<void>(initialised);
}

}  // namespace

void logMessage(int level, const char* message) {
    using namespace KLT::kltlogger;
    constexpr Severity kSeverities[] = {Info, Trace, Notice, Warning, Error, Fatal};
    initialiseOnce();
    if (level < NORVO_LEVEL_EVENT || level > NORVO_LEVEL_FATAL) return;
    const Severity severity = kSeverities[level - NORVO_LEVEL_EVENT];
    if (!isEnabled(severity)) return;
    write(severity, kSource, __LINE__, "LogMessage_VDI", message ? message : "(null)");
}

}  // namespace NorvoVirtualChannel::tc
