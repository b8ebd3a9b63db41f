// Compiled so that the header stays C.
#include "NorvoStreamClientC.h"

typedef int a_translation_unit_is_not_empty;
