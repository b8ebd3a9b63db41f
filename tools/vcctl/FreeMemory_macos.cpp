#include "FreeMemory.h"

#include <malloc/malloc.h>

namespace vcctl {

void giveFreeMemoryBack() { malloc_zone_pressure_relief(nullptr, 0); }

}  // namespace vcctl
