#pragma once

#include "platform/platform.h"

// Opens the file as told and closes it again; the result is the platform's error number, 0 if the
// open succeeded. A file that the probe makes vanishes with it. A file that exists is never removed
// or emptied: create-always then only opens it.
DWORD KIVFBASE_test_create_file(char const* lpszFilepath_p, DWORD dwDesiredAccess_p,
                                DWORD dwShareMode_p, DWORD dwCreationDistribution_p,
                                DWORD dwFlagsAndAttributes_p);
