// Which file a handle has, or a name leads to, and whether the driver may touch it.
#include "platform/platform.h"

namespace {

bool identify(HANDLE hFile, PlatformFileIdentity& identity) {
    BY_HANDLE_FILE_INFORMATION status = {};
    if (!GetFileInformationByHandle(hFile, &status)) {
        return false;
    }
    identity = {status.dwVolumeSerialNumber,
                uint64_t{status.nFileIndexHigh} << 32 | status.nFileIndexLow, 0};
    return true;
}

// Of the file that a path leads to, whoever has it.
bool identify(LPCSTR pszPath, PlatformFileIdentity& identity) {
    HANDLE const hFile =
        CreateFileA(pszPath, 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                    OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (hFile == INVALID_HANDLE_VALUE) {
        return false;
    }
    bool const bIdentified = identify(hFile, identity);
    DWORD const dwError = GetLastError();
    CloseHandle(hFile);
    SetLastError(dwError);
    return bIdentified;
}

} // namespace

BOOL PlatformGetFileIdentity(HANDLE hFile, PlatformFileIdentity* pIdentity) {
    return identify(hFile, *pIdentity);
}

BOOL PlatformGetNameIdentity(LPCSTR pszPath, PlatformFileIdentity* pIdentity) {
    return identify(pszPath, *pIdentity);
}

BOOL PlatformTestCompanion(HANDLE hFile, LPCSTR /*pszPath*/, LPCSTR pszSoundPath) {
    FILE_BASIC_INFO status = {};
    PlatformFileIdentity file = {};
    if (!GetFileInformationByHandleEx(hFile, FileBasicInfo, &status, sizeof status) ||
        !identify(hFile, file)) {
        return FALSE;
    }
    PlatformFileIdentity sound = {};
    bool const bSound = identify(pszSoundPath, sound);
    if ((status.FileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0 && !(bSound && file == sound)) {
        return TRUE;
    }
    SetLastError(ERROR_CANT_ACCESS_FILE);
    return FALSE;
}
