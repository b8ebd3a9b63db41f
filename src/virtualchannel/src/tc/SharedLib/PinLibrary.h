#pragma once

namespace NorvoVirtualChannel::tc {

// Keeps the library that this code lies in loaded until the process ends, whatever the host closes:
// its threads must not lose their code.
void pinLibrary();

}  // namespace NorvoVirtualChannel::tc
