#pragma once

#include "LanguageAbstraction.h"

namespace NorvoVirtualChannel::tc {

// Writes one line at one of NORVO_LEVEL_*, which are not the log's severities; lines at other
// levels are dropped. The first call, at any level, sets up the log file: HOME +
// "/Library/Logs/norvouvdi/VirtualChannel.log", or none when HOME is not set; a line on standard
// error tells that it cannot be opened. Thread-safe.
void logMessage(int level, const char* message);

}  // namespace NorvoVirtualChannel::tc
