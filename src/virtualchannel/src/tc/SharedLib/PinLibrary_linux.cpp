#include "PinLibrary.h"

namespace NorvoVirtualChannel::tc {

// The library is linked with -z nodelete.
void pinLibrary() {}

}  // namespace NorvoVirtualChannel::tc
