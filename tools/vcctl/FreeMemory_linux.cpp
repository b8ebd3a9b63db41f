#include "FreeMemory.h"

#include <malloc.h>

namespace vcctl {

void trimHeap() { malloc_trim(0); }

}  // namespace vcctl
