// What the platform layer adds to the calls of Windows.
#include "platform/platform.h"
#include "platform/split_path.h"

#include <array>
#include <cstdio>
#include <cstring>

namespace {

bool is_lead_byte(char c) {
    return IsDBCSLeadByte(static_cast<BYTE>(c)) != FALSE;
}

// A file name in the form that the file system compares. Its length, 0 if it cannot be had.
int wide_name(char const* pszName, std::array<wchar_t, 512>& wideName) {
    return MultiByteToWideChar(CP_ACP, MB_ERR_INVALID_CHARS, pszName, -1, wideName.data(),
                               static_cast<int>(wideName.size()));
}

// A file name in the narrow characters of this process. False if its code page lacks a letter.
bool narrow_name(wchar_t const* pwszName, char (*pszName)[MAX_PATH]) {
    bool const bUtf8 = GetACP() == CP_UTF8; // knows neither the flag nor the question
    BOOL bReplaced = FALSE;
    int const iLength =
        WideCharToMultiByte(CP_ACP, bUtf8 ? WC_ERR_INVALID_CHARS : WC_NO_BEST_FIT_CHARS, pwszName,
                            -1, *pszName, sizeof *pszName, nullptr, bUtf8 ? nullptr : &bReplaced);
    return iLength > 0 && !bReplaced;
}

// Whether a file or a directory can be opened with this access: NO_ERROR, or the error.
DWORD try_open(LPCSTR pszPath, DWORD dwAccess, DWORD dwFlags) {
    HANDLE const hTest =
        CreateFileA(pszPath, dwAccess, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                    nullptr, OPEN_EXISTING, dwFlags, nullptr);
    return hTest != INVALID_HANDLE_VALUE && CloseHandle(hTest) ? NO_ERROR : GetLastError();
}

} // namespace

bool PlatformSplitPath(LPCSTR pszPath, PlatformPathParts* pParts) {
    return platform::split_path(pszPath, pParts, {"\\/", true, is_lead_byte});
}

bool PlatformSameFileName(LPCSTR pszName1, LPCSTR pszName2) {
    std::array<wchar_t, 512> wideName1;
    std::array<wchar_t, 512> wideName2;
    int const iLength1 = wide_name(pszName1, wideName1);
    int const iLength2 = wide_name(pszName2, wideName2);
    if (iLength1 == 0 || iLength2 == 0) {
        return lstrcmpiA(pszName1, pszName2) == 0;
    }
    // Ordinal, as the file system does it: a comparison by language takes different names for one.
    return CompareStringOrdinal(wideName1.data(), iLength1, wideName2.data(), iLength2, TRUE) ==
           CSTR_EQUAL;
}

bool PlatformNameOnDisk(LPCSTR pszPath, char (*pszName)[MAX_PATH]) {
    PlatformPathParts parts;
    if (!PlatformSplitPath(pszPath, &parts)) {
        return false;
    }
    int const iLength =
        snprintf(*pszName, sizeof *pszName, "%s%s", parts.szStem, parts.szExtension);
    if (iLength < 0 || iLength >= MAX_PATH || strchr(*pszName, ':') != nullptr) {
        return false;
    }
    std::array<wchar_t, 512> wideGiven;
    std::array<wchar_t, 512> wideFull;
    wchar_t* pwszFilePart = nullptr;
    if (strpbrk(*pszName, "*?") != nullptr || wide_name(pszPath, wideGiven) == 0) {
        return true;
    }
    DWORD const dwFull =
        GetFullPathNameW(wideGiven.data(), wideFull.size(), wideFull.data(), &pwszFilePart);
    if (dwFull == 0 || dwFull >= wideFull.size() || pwszFilePart == nullptr) {
        return true;
    }
    char szFound[MAX_PATH];
    WIN32_FIND_DATAW found;
    HANDLE const hSearch = FindFirstFileW(wideFull.data(), &found);
    if (hSearch != INVALID_HANDLE_VALUE) {
        FindClose(hSearch);
    }
    if (narrow_name(hSearch != INVALID_HANDLE_VALUE ? found.cFileName : pwszFilePart, &szFound)) {
        strcpy(*pszName, szFound);
    }
    return true;
}

bool PlatformIsNameLingering(LPCSTR pszPath) {
    if (GetFileAttributesA(pszPath) != INVALID_FILE_ATTRIBUTES) {
        return false;
    }
    DWORD const dwError = GetLastError();
    return dwError == ERROR_ACCESS_DENIED || dwError == ERROR_DELETE_PENDING;
}

bool PlatformMayPass(LPCSTR pszPath, DWORD dwError) {
    if (dwError == ERROR_SHARING_VIOLATION || dwError == ERROR_DELETE_PENDING) {
        return true;
    }
    return (dwError == ERROR_ACCESS_DENIED || dwError == ERROR_ALREADY_EXISTS) &&
           PlatformIsNameLingering(pszPath);
}

DWORD PlatformCopyBytes(HANDLE /*hFrom*/, HANDLE /*hTo*/, DWORD /*dwBytes*/) {
    return 0;
}

DWORD PlatformForks() {
    return 0;
}

HANDLE PlatformLookAtFile(LPCSTR pszPath, DWORD dwDesiredAccess, DWORD dwShareMode) {
    HANDLE const hTest = CreateFileA(pszPath, dwDesiredAccess, dwShareMode, nullptr, OPEN_EXISTING,
                                     FILE_ATTRIBUTE_NORMAL, nullptr);
    if (hTest == INVALID_HANDLE_VALUE) {
        return hTest;
    }
    bool const bFile = GetFileType(hTest) == FILE_TYPE_DISK;
    CloseHandle(hTest);
    if (!bFile) {
        SetLastError(ERROR_ACCESS_DENIED);
        return INVALID_HANDLE_VALUE;
    }
    return CreateFileA(pszPath, GENERIC_READ,
                       FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                       OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
}

DWORD PlatformTestRemoval(LPCSTR pszPath) {
    DWORD const dwAttributes = GetFileAttributesA(pszPath);
    if (dwAttributes == INVALID_FILE_ATTRIBUTES) {
        return GetLastError();
    }
    if ((dwAttributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_READONLY)) != 0) {
        return ERROR_ACCESS_DENIED;
    }
    return try_open(pszPath, DELETE, FILE_ATTRIBUTE_NORMAL);
}

DWORD PlatformTestCreation(LPCSTR pszPath) {
    if (GetFileAttributesA(pszPath) != INVALID_FILE_ATTRIBUTES) {
        return ERROR_FILE_EXISTS;
    }
    DWORD const dwError = GetLastError();
    PlatformPathParts parts;
    if (dwError != ERROR_FILE_NOT_FOUND) {
        return dwError;
    }
    if (!PlatformSplitPath(pszPath, &parts)) {
        return ERROR_FILENAME_EXCED_RANGE;
    }
    char szDirectory[sizeof parts.szDrive + sizeof parts.szDirectory + 1];
    strcpy(szDirectory, parts.szDrive);
    strcat(szDirectory, parts.szDirectory[0] != '\0' ? parts.szDirectory : ".");
    // The right to add a file is one of the directory.
    return try_open(szDirectory, FILE_ADD_FILE, FILE_FLAG_BACKUP_SEMANTICS);
}
