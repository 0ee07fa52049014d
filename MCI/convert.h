#pragma once

#include "platform/platform.h"

#include <cstddef>

// Narrows a pointer difference to 32 bits. A difference above 0xFFFFFFFF leaves a warning in the
// trace; the value is cut to its low 32 bits either way.
DWORD PtrdiffTToDWord(ptrdiff_t llDifference_p);
