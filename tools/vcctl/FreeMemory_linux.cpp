#include "FreeMemory.h"

#include <malloc.h>

namespace vcctl {

void giveFreeMemoryBack() { malloc_trim(0); }

}  // namespace vcctl
