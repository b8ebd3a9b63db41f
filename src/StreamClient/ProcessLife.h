#pragma once

namespace NorvoStreamClient {

// False only when certainly no process has that ID; a zombie counts as alive.
bool isProcessAlive(unsigned int processId);

}  // namespace NorvoStreamClient
