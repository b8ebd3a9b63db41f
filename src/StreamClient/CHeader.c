// Only proves that the header is C.
#include "NorvoStreamClientC.h"

typedef int a_translation_unit_is_not_empty;
