#pragma once

namespace NorvoVirtualChannel::tc {

// The host's levels, which are not the log's severities (LanguageAbstraction.h, LogMessage_VDI).
namespace host_level {
inline constexpr int kEvent = 1;
inline constexpr int kTrace = 2;
inline constexpr int kNotable = 3;
inline constexpr int kWarning = 4;
inline constexpr int kError = 5;
inline constexpr int kFatal = 6;
}  // namespace host_level

// Writes one line at one of the host's levels; lines at other levels are dropped. The first call,
// at any level, sets up the log file: HOME + "/Library/Logs/norvouvdi/VirtualChannel.log", or none
// when HOME is not set; a line on standard error tells that it cannot be opened. Thread-safe.
void logMessage(int level, const char* message);

}  // namespace NorvoVirtualChannel::tc
