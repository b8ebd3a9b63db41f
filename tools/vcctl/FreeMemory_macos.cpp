#include "FreeMemory.h"

#include <malloc/malloc.h>

namespace vcctl {

void trimHeap() { malloc_zone_pressure_relief(nullptr, 0); }

}  // namespace vcctl
