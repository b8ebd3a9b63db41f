#pragma once

namespace NorvoVirtualChannel::tc {

// Keeps the library that contains this code loaded until the process ends, even after dlclose():
// its threads must not lose their code.
void pinLibrary();

}  // namespace NorvoVirtualChannel::tc
