#pragma once

#include "platform/platform.h"

// Opens the file as told and closes it again; the result is the platform's error number, 0 if the
// open succeeded. A file that create-new or create-always makes vanishes with the probe, one that
// open-always makes stays. A file that exists is never removed or emptied: create-always and
// truncate-existing then only open it, and the flag delete-on-close is ignored.
DWORD KIVFBASE_test_create_file(char const* lpszFilepath_p, DWORD dwDesiredAccess_p,
                                DWORD dwShareMode_p, DWORD dwCreationDistribution_p,
                                DWORD dwFlagsAndAttributes_p);
