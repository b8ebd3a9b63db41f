#pragma once

namespace NorvoStreamClient {

// False only when there is certainly no process of that ID; a zombie counts as alive.
bool isProcessAlive(unsigned int processId);

}  // namespace NorvoStreamClient
