// What the fault layer has on Windows besides. The calls of Windows go through pointers that the
// loader fills, and the linker puts ours in their place (--wrap=__imp_...). Below the layer stands
// a Windows that encrypts files and where names outlive their removal, as wine has neither.
#include "testing/fault_calls.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>

#define WRAP_POINTER(call)                                                                         \
    extern decltype(&call) const __wrap___imp_##call;                                              \
    decltype(&call) const __wrap___imp_##call = WRAP(call);
#define REPLACED(call) extern decltype(&call) const __real___imp_##call;

extern "C" {
decltype(GetFileAttributesA) __wrap_GetFileAttributesA;
decltype(GetFileInformationByHandleEx) __wrap_GetFileInformationByHandleEx;

FOR_EACH_CALL_OF_WINDOWS(WRAP_POINTER)
WRAP_POINTER(GetFileAttributesA)
WRAP_POINTER(GetFileInformationByHandleEx)

REPLACED(CreateFileA)
REPLACED(DeleteFileA)
REPLACED(MoveFileA)
REPLACED(GetFileAttributesA)
REPLACED(GetFileInformationByHandleEx)
}

namespace {

// The last file that was made, and whether it counts as encrypted.
HANDLE g_hMade = nullptr;
bool g_bMadeEncrypted = false;

// The names that were removed and are still there, each for so many meetings.
struct Lingering {
    std::array<char, MAX_PATH> name;
    unsigned nMeetings;
};
std::array<Lingering, 8> g_lingering{};

Lingering* find_lingering(LPCSTR lpFileName) {
    for (Lingering& rName : g_lingering) {
        if (rName.nMeetings > 0 && PlatformSameFileName(rName.name.data(), lpFileName)) {
            return &rName;
        }
    }
    return nullptr;
}

// Whether a call meets such a name, and fails with one of two errors then.
bool meets_lingering(LPCSTR lpFileName, DWORD dwError, DWORD dwOtherError) {
    if (platform_faults::lingers() == 0) {
        g_lingering = {}; // by now there may be files of these names
    }
    Lingering* const pName = find_lingering(lpFileName);
    if (pName == nullptr || (pName->nMeetings == 1 && --pName->nMeetings == 0)) {
        return false; // gone between two calls
    }
    SetLastError(--pName->nMeetings % 2 == 0 ? dwError : dwOtherError);
    return true;
}

void let_linger(LPCSTR lpFileName) {
    Lingering* pName = find_lingering(lpFileName);
    if (pName == nullptr) {
        pName = std::find_if(g_lingering.begin(), g_lingering.end(),
                             [](Lingering const& rName) { return rName.nMeetings == 0; });
    }
    if (pName == g_lingering.end() || strlen(lpFileName) >= pName->name.size()) {
        std::abort();
    }
    strcpy(pName->name.data(), lpFileName);
    pName->nMeetings = platform_faults::lingers();
}

} // namespace

HANDLE WINAPI REAL(CreateFileA)(LPCSTR lpFileName, DWORD dwDesiredAccess, DWORD dwShareMode,
                                LPSECURITY_ATTRIBUTES lpSecurityAttributes,
                                DWORD dwCreationDisposition, DWORD dwFlagsAndAttributes,
                                HANDLE hTemplateFile) {
    if (meets_lingering(lpFileName, ERROR_ACCESS_DENIED, ERROR_DELETE_PENDING)) {
        return INVALID_HANDLE_VALUE;
    }
    HANDLE const hFile =
        __real___imp_CreateFileA(lpFileName, dwDesiredAccess, dwShareMode, lpSecurityAttributes,
                                 dwCreationDisposition, dwFlagsAndAttributes, hTemplateFile);
    if (dwCreationDisposition == CREATE_NEW) {
        g_hMade = hFile;
        g_bMadeEncrypted = (dwFlagsAndAttributes & FILE_ATTRIBUTE_ENCRYPTED) != 0 &&
                           platform_faults::encryption_works().value_or(false);
    } else if (hFile == g_hMade) {
        g_hMade = nullptr; // closed: another file has the value
    }
    return hFile;
}

BOOL WINAPI REAL(DeleteFileA)(LPCSTR lpFileName) {
    if (meets_lingering(lpFileName, ERROR_ACCESS_DENIED, ERROR_DELETE_PENDING)) {
        return FALSE;
    }
    BOOL const bDeleted = __real___imp_DeleteFileA(lpFileName);
    if (bDeleted && platform_faults::lingers() > 0) {
        let_linger(lpFileName);
    }
    return bDeleted;
}

BOOL WINAPI REAL(MoveFileA)(LPCSTR lpExistingFileName, LPCSTR lpNewFileName) {
    return !meets_lingering(lpNewFileName, ERROR_ALREADY_EXISTS, ERROR_ACCESS_DENIED) &&
           __real___imp_MoveFileA(lpExistingFileName, lpNewFileName);
}

DWORD WINAPI WRAP(GetFileAttributesA)(LPCSTR lpFileName) {
    if (platform_faults::lingers() > 0 && find_lingering(lpFileName) != nullptr) {
        SetLastError(ERROR_ACCESS_DENIED);
        return INVALID_FILE_ATTRIBUTES;
    }
    return __real___imp_GetFileAttributesA(lpFileName);
}

BOOL WINAPI WRAP(GetFileInformationByHandleEx)(HANDLE hFile, FILE_INFO_BY_HANDLE_CLASS kind,
                                               LPVOID lpInformation, DWORD dwBufferSize) {
    BOOL const bTold =
        __real___imp_GetFileInformationByHandleEx(hFile, kind, lpInformation, dwBufferSize);
    if (bTold && kind == FileBasicInfo && platform_faults::encryption_works().has_value() &&
        (hFile != g_hMade || g_bMadeEncrypted)) {
        static_cast<FILE_BASIC_INFO*>(lpInformation)->FileAttributes |= FILE_ATTRIBUTE_ENCRYPTED;
    }
    return bTold;
}
