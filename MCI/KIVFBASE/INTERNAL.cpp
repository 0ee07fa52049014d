#include "MCI/KIVFBASE/INTERNAL.h"

#define TRACE_MODULE "XKIVFBASE"
#include "log/trace.h"

namespace {

HANDLE open_for_probe(char const* lpszFilepath_p, DWORD dwDesiredAccess_p, DWORD dwShareMode_p,
                      DWORD dwCreationDistribution_p, DWORD dwFlagsAndAttributes_p) {
    return CreateFileA(lpszFilepath_p, dwDesiredAccess_p, dwShareMode_p, nullptr,
                       dwCreationDistribution_p, dwFlagsAndAttributes_p, nullptr);
}

// What a probe with create-always answers: on a file that exists, what an open answers; the file is
// made only under a name that is free. The loop runs again only if another process makes or removes
// the file between the two calls.
HANDLE probe_create_always(char const* lpszFilepath_p, DWORD dwDesiredAccess_p, DWORD dwShareMode_p,
                           DWORD dwFlagsAndAttributes_p) {
    for (int nTry = 0;; ++nTry) {
        HANDLE hFile = open_for_probe(lpszFilepath_p, dwDesiredAccess_p, dwShareMode_p,
                                      OPEN_EXISTING, dwFlagsAndAttributes_p);
        if (hFile != INVALID_HANDLE_VALUE || GetLastError() != ERROR_FILE_NOT_FOUND) {
            return hFile;
        }
        hFile = open_for_probe(lpszFilepath_p, dwDesiredAccess_p, dwShareMode_p, CREATE_NEW,
                               dwFlagsAndAttributes_p | FILE_FLAG_DELETE_ON_CLOSE);
        if (hFile != INVALID_HANDLE_VALUE || GetLastError() != ERROR_FILE_EXISTS || nTry == 9) {
            return hFile;
        }
    }
}

// Opens the file in such a way that one that exists is neither removed nor emptied, whatever
// disposition and flags the caller wants.
HANDLE probe(char const* lpszFilepath_p, DWORD dwDesiredAccess_p, DWORD dwShareMode_p,
             DWORD dwCreationDistribution_p, DWORD dwFlagsAndAttributes_p) {
    DWORD const dwHarmlessFlags = dwFlagsAndAttributes_p & ~DWORD{FILE_FLAG_DELETE_ON_CLOSE};
    switch (dwCreationDistribution_p) {
    case CREATE_NEW:
        return open_for_probe(lpszFilepath_p, dwDesiredAccess_p, dwShareMode_p, CREATE_NEW,
                              dwHarmlessFlags | FILE_FLAG_DELETE_ON_CLOSE);
    case CREATE_ALWAYS:
        return probe_create_always(lpszFilepath_p, dwDesiredAccess_p, dwShareMode_p,
                                   dwHarmlessFlags);
    case TRUNCATE_EXISTING:
        return open_for_probe(lpszFilepath_p, dwDesiredAccess_p, dwShareMode_p, OPEN_EXISTING,
                              dwHarmlessFlags);
    default:
        return open_for_probe(lpszFilepath_p, dwDesiredAccess_p, dwShareMode_p,
                              dwCreationDistribution_p, dwHarmlessFlags);
    }
}

} // namespace

DWORD KIVFBASE_test_create_file(char const* lpszFilepath_p, DWORD dwDesiredAccess_p,
                                DWORD dwShareMode_p, DWORD dwCreationDistribution_p,
                                DWORD dwFlagsAndAttributes_p) {
    TRACE_ENTRY("-----KIVFBASE_test_create_file(...)");
    TRACE_PARAM("lpszFilepath_p", "%s", lpszFilepath_p);
    TRACE_PARAM("dwDesiredAccess_p", "%lu", dwDesiredAccess_p);
    TRACE_PARAM("dwShareMode_p", "%lu", dwShareMode_p);
    TRACE_PARAM("dwCreationDistribution_p", "%lu", dwCreationDistribution_p);
    TRACE_PARAM("dwFlagsAndAttributes_p", "%lu", dwFlagsAndAttributes_p);

    // Keeps the platform from asking the user about an empty drive.
    UINT const nOldMode = SetErrorMode(SEM_FAILCRITICALERRORS);
    HANDLE const hFile = probe(lpszFilepath_p, dwDesiredAccess_p, dwShareMode_p,
                               dwCreationDistribution_p, dwFlagsAndAttributes_p);
    DWORD dwError = NO_ERROR;
    if (hFile == INVALID_HANDLE_VALUE) {
        dwError = GetLastError();
    } else if (!CloseHandle(hFile)) {
        TRACE_ERROR(GetLastError(), "GetLastError() after CloseHandle(hFile)");
    }
    SetErrorMode(nOldMode);
    return dwError;
}
