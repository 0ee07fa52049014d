// The seam in front of the platform's own calls. Compiled only into the test build.
#define KIV_PLATFORM_OWN_CALLS
#include "platform/fault_seam.h"

#include "platform/windows_fault_names.h"
// From here on the names are the platform's again.
#undef CreateFileA
#undef CloseHandle
#undef ReadFile
#undef WriteFile
#undef SetFilePointer
#undef SetEndOfFile
#undef GetFileSize
#undef FlushFileBuffers
#undef DeleteFileA
#undef GetFileAttributesA
#undef MoveFileA
#undef GetFullPathNameA
#undef HeapAlloc
#undef HeapFree
#undef CreateFileMappingA
#undef MapViewOfFile
#undef UnmapViewOfFile
#undef GetSystemDirectoryA
#undef GetTempPathA
#undef GetDiskFreeSpaceExA
#undef DriverCallback

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace {

std::mutex g_mutex;
// Files and mappings. Without memory of its own, which a test can make run out.
std::array<HANDLE, 4096> g_open{};

HANDLE remember(HANDLE hObject) {
    if (hObject != nullptr && hObject != INVALID_HANDLE_VALUE) {
        std::lock_guard const lock(g_mutex);
        HANDLE* const phFree = std::find(g_open.begin(), g_open.end(), HANDLE{});
        if (phFree == g_open.end()) {
            std::abort();
        }
        *phFree = hObject;
        FAULT_TALLY(Handles, 1);
    }
    return hObject;
}

void forget(HANDLE hObject) {
    std::lock_guard const lock(g_mutex);
    HANDLE* const phKnown = std::find(g_open.begin(), g_open.end(), hObject);
    if (hObject != nullptr && phKnown != g_open.end()) {
        *phKnown = nullptr;
        FAULT_TALLY(Handles, -1);
    }
}

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

bool changes_disk(LPCSTR lpFileName, DWORD dwCreationDisposition) {
    return dwCreationDisposition != OPEN_EXISTING &&
           (dwCreationDisposition != OPEN_ALWAYS ||
            GetFileAttributesA(lpFileName) == INVALID_FILE_ATTRIBUTES);
}

} // namespace

namespace platform_faults {

DWORD attributes(HANDLE hFile, DWORD dwTrueAttributes) {
    bool const bEncrypted =
        encryption_works().has_value() && (hFile != g_hMade || g_bMadeEncrypted);
    return bEncrypted ? dwTrueAttributes | FILE_ATTRIBUTE_ENCRYPTED : dwTrueAttributes;
}

void abandon_everything() {
    std::lock_guard const lock(g_mutex);
    for (HANDLE& rhObject : g_open) {
        if (rhObject != nullptr) {
            CloseHandle(rhObject);
        }
        rhObject = nullptr;
    }
    FAULT_TALLY(Handles, -static_cast<int>(open_handles()));
    FAULT_TALLY(HeapBlocks, -static_cast<int>(heap_blocks()));
    FAULT_TALLY(Views, -static_cast<int>(mapped_views()));
}

} // namespace platform_faults

extern "C" {

HANDLE WINAPI FaultCreateFileA(LPCSTR lpFileName, DWORD dwDesiredAccess, DWORD dwShareMode,
                               LPSECURITY_ATTRIBUTES lpSecurityAttributes,
                               DWORD dwCreationDisposition, DWORD dwFlagsAndAttributes,
                               HANDLE hTemplateFile) {
    FAULT_POINT(CreateFile, INVALID_HANDLE_VALUE);
    if (changes_disk(lpFileName, dwCreationDisposition)) {
        FAULT_CHANGE();
    }
    if (meets_lingering(lpFileName, ERROR_ACCESS_DENIED, ERROR_DELETE_PENDING)) {
        return INVALID_HANDLE_VALUE;
    }
    HANDLE const hFile = CreateFileA(lpFileName, dwDesiredAccess, dwShareMode, lpSecurityAttributes,
                                     dwCreationDisposition, dwFlagsAndAttributes, hTemplateFile);
    if (dwCreationDisposition == CREATE_NEW) {
        g_hMade = hFile;
        g_bMadeEncrypted = (dwFlagsAndAttributes & FILE_ATTRIBUTE_ENCRYPTED) != 0 &&
                           platform_faults::encryption_works().value_or(false);
    }
    return remember(hFile);
}

BOOL WINAPI FaultCloseHandle(HANDLE hObject) {
    FAULT_POINT(CloseHandle, FALSE);
    forget(hObject);
    if (hObject == g_hMade) {
        g_hMade = nullptr; // another file gets the value
    }
    return CloseHandle(hObject);
}

BOOL WINAPI FaultReadFile(HANDLE hFile, LPVOID lpBuffer, DWORD nNumberOfBytesToRead,
                          LPDWORD lpNumberOfBytesRead, LPOVERLAPPED lpOverlapped) {
    FAULT_POINT(ReadFile, FALSE);
    return ReadFile(hFile, lpBuffer, FAULT_HALVED(nNumberOfBytesToRead), lpNumberOfBytesRead,
                    lpOverlapped);
}

BOOL WINAPI FaultWriteFile(HANDLE hFile, LPCVOID lpBuffer, DWORD nNumberOfBytesToWrite,
                           LPDWORD lpNumberOfBytesWritten, LPOVERLAPPED lpOverlapped) {
    FAULT_POINT(WriteFile, FALSE);
    FAULT_CHANGE();
    BOOL const bWritten = WriteFile(hFile, lpBuffer, FAULT_HALVED(nNumberOfBytesToWrite),
                                    lpNumberOfBytesWritten, lpOverlapped);
    if (bWritten && FAULT_HALVED_ERROR() != NO_ERROR) {
        SetLastError(FAULT_HALVED_ERROR());
        return FALSE;
    }
    return bWritten;
}

DWORD WINAPI FaultSetFilePointer(HANDLE hFile, LONG lDistanceToMove, PLONG lpDistanceToMoveHigh,
                                 DWORD dwMoveMethod) {
    FAULT_POINT(SetFilePointer, INVALID_SET_FILE_POINTER);
    return SetFilePointer(hFile, lDistanceToMove, lpDistanceToMoveHigh, dwMoveMethod);
}

BOOL WINAPI FaultSetEndOfFile(HANDLE hFile) {
    FAULT_POINT(SetEndOfFile, FALSE);
    FAULT_CHANGE();
    return SetEndOfFile(hFile);
}

DWORD WINAPI FaultGetFileSize(HANDLE hFile, LPDWORD lpFileSizeHigh) {
    FAULT_POINT(GetFileSize, INVALID_FILE_SIZE);
    return GetFileSize(hFile, lpFileSizeHigh);
}

BOOL WINAPI FaultFlushFileBuffers(HANDLE hFile) {
    FAULT_POINT(FlushFileBuffers, FALSE);
    // Without the wait for the disk: the tests end sessions, not the machine, and there are
    // thousands.
    return GetFileType(hFile) == FILE_TYPE_DISK;
}

BOOL WINAPI FaultDeleteFileA(LPCSTR lpFileName) {
    FAULT_POINT(DeleteFile, FALSE);
    FAULT_CHANGE();
    if (meets_lingering(lpFileName, ERROR_ACCESS_DENIED, ERROR_DELETE_PENDING)) {
        return FALSE;
    }
    BOOL const bDeleted = DeleteFileA(lpFileName);
    if (bDeleted && platform_faults::lingers() > 0) {
        let_linger(lpFileName);
    }
    return bDeleted;
}

DWORD WINAPI FaultGetFileAttributesA(LPCSTR lpFileName) {
    if (platform_faults::lingers() > 0 && find_lingering(lpFileName) != nullptr) {
        SetLastError(ERROR_ACCESS_DENIED);
        return INVALID_FILE_ATTRIBUTES;
    }
    return GetFileAttributesA(lpFileName);
}

BOOL WINAPI FaultMoveFileA(LPCSTR lpExistingFileName, LPCSTR lpNewFileName) {
    FAULT_POINT(MoveFile, FALSE);
    FAULT_CHANGE();
    if (meets_lingering(lpNewFileName, ERROR_ALREADY_EXISTS, ERROR_ACCESS_DENIED)) {
        return FALSE;
    }
    return MoveFileA(lpExistingFileName, lpNewFileName);
}

DWORD WINAPI FaultGetFullPathNameA(LPCSTR lpFileName, DWORD nBufferLength, LPSTR lpBuffer,
                                   LPSTR* lpFilePart) {
    FAULT_POINT(GetFullPathName, 0);
    return GetFullPathNameA(lpFileName, nBufferLength, lpBuffer, lpFilePart);
}

LPVOID WINAPI FaultHeapAlloc(HANDLE hHeap, DWORD dwFlags, SIZE_T dwBytes) {
    FAULT_POINT(HeapAlloc, nullptr);
    LPVOID const lpMem = HeapAlloc(hHeap, dwFlags, dwBytes);
    FAULT_TALLY(HeapBlocks, lpMem != nullptr ? 1 : 0);
    return lpMem;
}

BOOL WINAPI FaultHeapFree(HANDLE hHeap, DWORD dwFlags, LPVOID lpMem) {
    FAULT_POINT(HeapFree, FALSE);
    FAULT_TALLY(HeapBlocks, lpMem != nullptr ? -1 : 0);
    return HeapFree(hHeap, dwFlags, lpMem);
}

HANDLE WINAPI FaultCreateFileMappingA(HANDLE hFile, LPSECURITY_ATTRIBUTES lpAttributes,
                                      DWORD flProtect, DWORD dwMaximumSizeHigh,
                                      DWORD dwMaximumSizeLow, LPCSTR lpName) {
    FAULT_POINT(CreateFileMapping, nullptr);
    return remember(CreateFileMappingA(hFile, lpAttributes, flProtect, dwMaximumSizeHigh,
                                       dwMaximumSizeLow, lpName));
}

LPVOID WINAPI FaultMapViewOfFile(HANDLE hFileMappingObject, DWORD dwDesiredAccess,
                                 DWORD dwFileOffsetHigh, DWORD dwFileOffsetLow,
                                 SIZE_T dwNumberOfBytesToMap) {
    FAULT_POINT(MapViewOfFile, nullptr);
    LPVOID const lpView = MapViewOfFile(hFileMappingObject, dwDesiredAccess, dwFileOffsetHigh,
                                        dwFileOffsetLow, dwNumberOfBytesToMap);
    FAULT_TALLY(Views, lpView != nullptr ? 1 : 0);
    return lpView;
}

BOOL WINAPI FaultUnmapViewOfFile(LPCVOID lpBaseAddress) {
    FAULT_POINT(UnmapViewOfFile, FALSE);
    BOOL const bUnmapped = UnmapViewOfFile(lpBaseAddress);
    FAULT_TALLY(Views, bUnmapped ? -1 : 0);
    return bUnmapped;
}

UINT WINAPI FaultGetSystemDirectoryA(LPSTR lpBuffer, UINT uSize) {
    FAULT_POINT(GetSystemDirectory, 0);
    return GetSystemDirectoryA(lpBuffer, uSize);
}

DWORD WINAPI FaultGetTempPathA(DWORD nBufferLength, LPSTR lpBuffer) {
    FAULT_POINT(GetTempPath, 0);
    return GetTempPathA(nBufferLength, lpBuffer);
}

BOOL WINAPI FaultGetDiskFreeSpaceExA(LPCSTR lpDirectoryName, PULARGE_INTEGER lpFreeBytesAvailable,
                                     PULARGE_INTEGER lpTotalNumberOfBytes,
                                     PULARGE_INTEGER lpTotalNumberOfFreeBytes) {
    FAULT_POINT(GetDiskFreeSpaceEx, FALSE);
    BOOL const bTold = GetDiskFreeSpaceExA(lpDirectoryName, lpFreeBytesAvailable,
                                           lpTotalNumberOfBytes, lpTotalNumberOfFreeBytes);
    for (PULARGE_INTEGER const lpFree : {lpFreeBytesAvailable, lpTotalNumberOfFreeBytes}) {
        if (bTold && lpFree != nullptr) {
            lpFree->QuadPart = FAULT_FREE_BYTES(lpFree->QuadPart);
        }
    }
    return bTold;
}

BOOL WINAPI FaultDriverCallback(DWORD_PTR dwCallback, DWORD dwFlags, HDRVR hDevice, DWORD dwMsg,
                                DWORD_PTR dwUser, DWORD_PTR dwParam1, DWORD_PTR dwParam2) {
    FAULT_POINT(DriverCallback, FALSE);
    return DriverCallback(dwCallback, dwFlags, hDevice, dwMsg, dwUser, dwParam1, dwParam2);
}
}
