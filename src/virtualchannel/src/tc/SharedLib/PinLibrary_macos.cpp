#include "PinLibrary.h"

#include <dlfcn.h>

namespace NorvoVirtualChannel::tc {

void pinLibrary() {
    static const bool pinned = [] {
        Dl_info self;
        return dladdr(reinterpret_cast<const void*>(&pinLibrary), &self) != 0 &&
               dlopen(self.dli_fname, RTLD_NOLOAD | RTLD_NODELETE | RTLD_LAZY) != nullptr;
    }();
    static_cast<void>(pinned);
}

}  // namespace NorvoVirtualChannel::tc
