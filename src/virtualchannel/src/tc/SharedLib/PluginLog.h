#pragma once

namespace NorvoVirtualChannel::tc {

// Writes one line under the host's level numbers: 1 to 6 stand for the severities 5, 6, 4, 3, 2
// and 1; other levels are dropped. The first call, whatever its level, sets up the log file: HOME +
// "/Library/Logs/norvouvdi/VirtualChannel.log", or no file without a HOME. Thread-safe.
void logMessage(int level, const char* message);

}  // namespace NorvoVirtualChannel::tc
