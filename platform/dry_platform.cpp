#define KIV_PLATFORM_OWN_CALLS
#include "platform/dry_disk.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace dry {
namespace {

constexpr uint64_t EMPTY_DISK_BYTES = uint64_t{1} << 40;
constexpr uint64_t MOST_BYTES_ON_EMPTY_DISK = uint64_t{1} << 30; // of one file

HANDLE give_handle(Handle handle) {
    uintptr_t const number = 4 * ++state().nHandlesGiven; // never twice
    state().handles.emplace(number, std::move(handle));
    return reinterpret_cast<HANDLE>(number);
}

Handle* find_handle(HANDLE handle) {
    auto const found = state().handles.find(reinterpret_cast<uintptr_t>(handle));
    return found != state().handles.end() ? &found->second : nullptr;
}

// The handle of a file, with this access. Null, with the error set, if it is none.
Handle* file_handle(char const* pszCall, HANDLE handle, DWORD dwAccessNeeded) {
    Handle* const pHandle = find_handle(handle);
    if (pHandle == nullptr || pHandle->pFile == nullptr) {
        fail(pszCall, "", ERROR_INVALID_HANDLE);
    } else if ((pHandle->dwAccess & dwAccessNeeded) != dwAccessNeeded) {
        fail(pszCall, pHandle->pFile->name, ERROR_ACCESS_DENIED);
    } else {
        return pHandle;
    }
    return nullptr;
}

void note_read(Handle const& handle, void const* pBuffer, DWORD dwBytes) {
    if (!over_real_disk() || dwBytes == 0) {
        return;
    }
    char const* const pBytes = static_cast<char const*>(pBuffer);
    LastRead& last = state().lastRead;
    if (last.pFile == handle.pFile && last.pBuffer + last.dwBytes == pBytes &&
        last.ullFileOffset + last.dwBytes == handle.ullFileOffset) {
        last.dwBytes += dwBytes;
    } else {
        last = {handle.pFile, pBytes, dwBytes, handle.ullFileOffset};
    }
}

// Writes what was just read as a reference to where it was read. False if the bytes are others.
bool write_as_read(Handle& handle, void const* pBuffer, DWORD dwBytes) {
    LastRead const& last = state().lastRead;
    char const* const pBytes = static_cast<char const*>(pBuffer);
    if (last.pFile == nullptr || pBytes < last.pBuffer ||
        pBytes + dwBytes > last.pBuffer + last.dwBytes) {
        return false;
    }
    uint64_t const ullFrom = last.ullFileOffset + static_cast<uint64_t>(pBytes - last.pBuffer);
    if (last.pFile == handle.pFile && ullFrom + dwBytes > handle.pFile->contents.size()) {
        return false;
    }
    std::vector<char> there(dwBytes);
    DWORD dwRead = 0;
    if (last.pFile->contents.read(ullFrom, there.data(), dwBytes, dwRead) != NO_ERROR ||
        dwRead != dwBytes || memcmp(there.data(), pBytes, dwBytes) != 0) {
        return false;
    }
    Contents const from = last.pFile->contents; // it may be this file
    handle.pFile->contents.write_range(handle.ullFileOffset, from, ullFrom, dwBytes);
    return true;
}

bool fits_disk(uint64_t ullBytes) {
    return over_real_disk() || ullBytes <= MOST_BYTES_ON_EMPTY_DISK;
}

// By how much the files have grown here.
uint64_t grown_bytes() {
    uint64_t ullGrown = 0;
    for (Name const& name : state().names) {
        if (name.pFile != nullptr && name.pFile->contents.size() > name.pFile->ullRealBytes) {
            ullGrown += name.pFile->contents.size() - name.pFile->ullRealBytes;
        }
    }
    return ullGrown;
}

} // namespace
} // namespace dry

HANDLE WINAPI DryCreateFileA(LPCSTR lpFileName, DWORD dwDesiredAccess, DWORD dwShareMode,
                             LPSECURITY_ATTRIBUTES /*lpSecurityAttributes*/,
                             DWORD dwCreationDisposition, DWORD dwFlagsAndAttributes,
                             HANDLE /*hTemplateFile*/) {
    std::string const path = dry::absolute(lpFileName);
    dry::Handle handle;
    handle.dwAccess = dwDesiredAccess;
    handle.dwShare = dwShareMode;
    handle.bDeleteOnClose = (dwFlagsAndAttributes & FILE_FLAG_DELETE_ON_CLOSE) != 0;
    bool bMade = false;
    DWORD const dwError = dry::open_file(path, dwCreationDisposition, handle, bMade);
    if (dwError != NO_ERROR) {
        dry::fail("CreateFileA", path, dwError);
        return INVALID_HANDLE_VALUE;
    }
    if (bMade && !handle.bDeleteOnClose) {
        dry::note(dry::Change::Kind::Made, *handle.pFile);
    }
    return dry::give_handle(std::move(handle));
}

BOOL WINAPI DryCloseHandle(HANDLE hObject) {
    dry::Handle const* const pHandle = dry::find_handle(hObject);
    if (pHandle == nullptr) {
        return dry::fail("CloseHandle", "", ERROR_INVALID_HANDLE);
    }
    if (pHandle->bDeleteOnClose) {
        if (!pHandle->pFile->realName.empty()) {
            dry::note(dry::Change::Kind::Removed, *pHandle->pFile);
        }
        dry::give_name(pHandle->pFile->name, nullptr);
    }
    dry::state().handles.erase(reinterpret_cast<uintptr_t>(hObject));
    return TRUE;
}

BOOL WINAPI DryReadFile(HANDLE hFile, LPVOID lpBuffer, DWORD nNumberOfBytesToRead,
                        LPDWORD lpNumberOfBytesRead, LPOVERLAPPED /*lpOverlapped*/) {
    *lpNumberOfBytesRead = 0;
    dry::Handle* const pHandle = dry::file_handle("ReadFile", hFile, GENERIC_READ);
    if (pHandle == nullptr) {
        return FALSE;
    }
    DWORD const dwError = pHandle->pFile->contents.read(pHandle->ullFileOffset, lpBuffer,
                                                        nNumberOfBytesToRead, *lpNumberOfBytesRead);
    if (dwError != NO_ERROR) {
        return dry::fail("ReadFile", pHandle->pFile->name, dwError);
    }
    dry::note_read(*pHandle, lpBuffer, *lpNumberOfBytesRead);
    pHandle->ullFileOffset += *lpNumberOfBytesRead;
    return TRUE;
}

BOOL WINAPI DryWriteFile(HANDLE hFile, LPCVOID lpBuffer, DWORD nNumberOfBytesToWrite,
                         LPDWORD lpNumberOfBytesWritten, LPOVERLAPPED /*lpOverlapped*/) {
    *lpNumberOfBytesWritten = 0;
    dry::Handle* const pHandle = dry::file_handle("WriteFile", hFile, GENERIC_WRITE);
    if (pHandle == nullptr) {
        return FALSE;
    }
    if (nNumberOfBytesToWrite == 0) {
        return TRUE;
    }
    dry::File& file = *pHandle->pFile;
    if (!dry::fits_disk(pHandle->ullFileOffset + nNumberOfBytesToWrite)) {
        return dry::fail("WriteFile", file.name, ERROR_DISK_FULL);
    }
    if (!dry::write_as_read(*pHandle, lpBuffer, nNumberOfBytesToWrite)) {
        file.contents.write(pHandle->ullFileOffset, lpBuffer, nNumberOfBytesToWrite);
    }
    dry::note_write(file, pHandle->ullFileOffset, nNumberOfBytesToWrite);
    pHandle->ullFileOffset += nNumberOfBytesToWrite;
    *lpNumberOfBytesWritten = nNumberOfBytesToWrite;
    return TRUE;
}

DWORD WINAPI DrySetFilePointer(HANDLE hFile, LONG lDistanceToMove, PLONG lpDistanceToMoveHigh,
                               DWORD dwMoveMethod) {
    dry::Handle* const pHandle = dry::file_handle("SetFilePointer", hFile, 0);
    if (pHandle == nullptr) {
        return INVALID_SET_FILE_POINTER;
    }
    int64_t llDistance = lDistanceToMove;
    if (lpDistanceToMoveHigh != nullptr) {
        llDistance = static_cast<int64_t>(static_cast<uint64_t>(*lpDistanceToMoveHigh) << 32 |
                                          static_cast<uint32_t>(lDistanceToMove));
    }
    uint64_t const ullStart = dwMoveMethod == FILE_END       ? pHandle->pFile->contents.size()
                              : dwMoveMethod == FILE_CURRENT ? pHandle->ullFileOffset
                                                             : 0;
    int64_t const llResult = static_cast<int64_t>(ullStart) + llDistance;
    if (llResult < 0) {
        dry::fail("SetFilePointer", pHandle->pFile->name, ERROR_NEGATIVE_SEEK);
        return INVALID_SET_FILE_POINTER;
    }
    pHandle->ullFileOffset = static_cast<uint64_t>(llResult);
    if (lpDistanceToMoveHigh != nullptr) {
        *lpDistanceToMoveHigh = static_cast<LONG>(llResult >> 32);
    }
    DWORD const dwLow = static_cast<DWORD>(llResult & 0xFFFFFFFF);
    if (dwLow == INVALID_SET_FILE_POINTER) {
        SetLastError(NO_ERROR);
    }
    return dwLow;
}

BOOL WINAPI DrySetEndOfFile(HANDLE hFile) {
    dry::Handle* const pHandle = dry::file_handle("SetEndOfFile", hFile, GENERIC_WRITE);
    if (pHandle == nullptr) {
        return FALSE;
    }
    if (!dry::fits_disk(pHandle->ullFileOffset)) {
        return dry::fail("SetEndOfFile", pHandle->pFile->name, ERROR_DISK_FULL);
    }
    pHandle->pFile->contents.resize(pHandle->ullFileOffset);
    dry::note(dry::Change::Kind::Resized, *pHandle->pFile);
    return TRUE;
}

DWORD WINAPI DryGetFileSize(HANDLE hFile, LPDWORD lpFileSizeHigh) {
    dry::Handle const* const pHandle = dry::file_handle("GetFileSize", hFile, 0);
    if (pHandle == nullptr) {
        return INVALID_FILE_SIZE;
    }
    uint64_t const ullBytes = pHandle->pFile->contents.size();
    if (lpFileSizeHigh != nullptr) {
        *lpFileSizeHigh = static_cast<DWORD>(ullBytes >> 32);
    }
    DWORD const dwLow = static_cast<DWORD>(ullBytes & 0xFFFFFFFFu);
    if (dwLow == INVALID_FILE_SIZE) {
        SetLastError(NO_ERROR);
    }
    return dwLow;
}

BOOL WINAPI DryFlushFileBuffers(HANDLE hFile) {
    return dry::file_handle("FlushFileBuffers", hFile, GENERIC_WRITE) != nullptr;
}

BOOL WINAPI DryDeleteFileA(LPCSTR lpFileName) {
    std::string const path = dry::absolute(lpFileName);
    std::shared_ptr<dry::File> pFile;
    DWORD const dwError = dry::find_closed_file(path, pFile);
    if (dwError != NO_ERROR) {
        return dry::fail("DeleteFileA", path, dwError);
    }
    dry::note(dry::Change::Kind::Removed, *pFile);
    dry::give_name(path, nullptr);
    return TRUE;
}

BOOL WINAPI DryMoveFileA(LPCSTR lpExistingFileName, LPCSTR lpNewFileName) {
    std::string const path = dry::absolute(lpExistingFileName);
    std::string const newPath = dry::absolute(lpNewFileName);
    std::shared_ptr<dry::File> pFile;
    DWORD dwError = dry::find_closed_file(path, pFile);
    if (dwError == NO_ERROR) {
        dwError = dry::test_creation(newPath);
    }
    if (dwError != NO_ERROR) {
        return dry::fail("MoveFileA", path,
                         dwError == ERROR_FILE_EXISTS ? DWORD{ERROR_ALREADY_EXISTS} : dwError);
    }
    dry::note(dry::Change::Kind::Renamed, *pFile, newPath);
    dry::give_name(path, nullptr);
    dry::give_name(newPath, pFile);
    return TRUE;
}

HANDLE WINAPI DryCreateFileMappingA(HANDLE /*hFile*/, LPSECURITY_ATTRIBUTES /*lpAttributes*/,
                                    DWORD /*flProtect*/, DWORD /*dwMaximumSizeHigh*/,
                                    DWORD dwMaximumSizeLow, LPCSTR /*lpName*/) {
    dry::Handle mapping;
    mapping.nMappingBytes = dwMaximumSizeLow;
    return dry::give_handle(std::move(mapping));
}

LPVOID WINAPI DryMapViewOfFile(HANDLE hFileMappingObject, DWORD /*dwDesiredAccess*/,
                               DWORD /*dwFileOffsetHigh*/, DWORD /*dwFileOffsetLow*/,
                               SIZE_T /*dwNumberOfBytesToMap*/) {
    dry::Handle const* const pMapping = dry::find_handle(hFileMappingObject);
    if (pMapping == nullptr || pMapping->nMappingBytes == 0) {
        dry::fail("MapViewOfFile", "", ERROR_INVALID_HANDLE);
        return nullptr;
    }
    void* const pView = HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, pMapping->nMappingBytes);
    if (pView != nullptr) {
        dry::state().views.insert(pView);
    }
    return pView;
}

BOOL WINAPI DryUnmapViewOfFile(LPCVOID lpBaseAddress) {
    if (dry::state().views.erase(lpBaseAddress) == 0) {
        return dry::fail("UnmapViewOfFile", "", ERROR_INVALID_PARAMETER);
    }
    return HeapFree(GetProcessHeap(), 0, const_cast<void*>(lpBaseAddress));
}

BOOL WINAPI DryGetDiskFreeSpaceExA(LPCSTR lpDirectoryName, ULARGE_INTEGER* lpFreeBytesAvailable,
                                   ULARGE_INTEGER* lpTotalNumberOfBytes,
                                   ULARGE_INTEGER* lpTotalNumberOfFreeBytes) {
    uint64_t const ullGrown = dry::grown_bytes();
    if (dry::over_real_disk()) {
        if (!GetDiskFreeSpaceExA(lpDirectoryName, lpFreeBytesAvailable, lpTotalNumberOfBytes,
                                 lpTotalNumberOfFreeBytes)) {
            return dry::fail("GetDiskFreeSpaceExA", lpDirectoryName, GetLastError());
        }
    } else {
        for (ULARGE_INTEGER* const pBytes :
             {lpFreeBytesAvailable, lpTotalNumberOfBytes, lpTotalNumberOfFreeBytes}) {
            pBytes->QuadPart = dry::EMPTY_DISK_BYTES;
        }
    }
    for (ULARGE_INTEGER* const pFree : {lpFreeBytesAvailable, lpTotalNumberOfFreeBytes}) {
        if (dry::state().ullFreeBytes) {
            pFree->QuadPart = *dry::state().ullFreeBytes;
        }
        pFree->QuadPart -= std::min<uint64_t>(ullGrown, pFree->QuadPart);
    }
    return TRUE;
}

// Files are named after the time, and the driver tries until the second is over if such a name is
// taken: on the empty disk every look at the clock finds a later second.
time_t DryTime(time_t* /*pTime*/) {
    return dry::over_real_disk()
               ? time(nullptr) + static_cast<time_t>(dry::state().ullSleptMs / 1000)
               : dry::state().emptyDiskNow++;
}

// Nothing waits: the clock goes on instead.
void WINAPI DrySleep(DWORD dwMilliseconds) {
    dry::state().ullSleptMs += dwMilliseconds;
}

HANDLE DryPlatformCreatePrivateFile(LPCSTR lpFileName, DWORD dwDesiredAccess, DWORD dwShareMode,
                                    HANDLE /*hLike*/) {
    return DryCreateFileA(lpFileName, dwDesiredAccess, dwShareMode, nullptr, CREATE_NEW,
                          FILE_ATTRIBUTE_NORMAL, nullptr);
}

BOOL DryPlatformCopyPermissions(HANDLE hFrom, HANDLE hTo, bool /*bCompanion*/) {
    dry::Handle const* const pFrom = dry::file_handle("PlatformCopyPermissions", hFrom, 0);
    dry::Handle const* const pTo = dry::file_handle("PlatformCopyPermissions", hTo, GENERIC_WRITE);
    if (pFrom == nullptr || pTo == nullptr) {
        return FALSE;
    }
    dry::note(dry::Change::Kind::Permissions, *pTo->pFile);
    return TRUE;
}

BOOL DryPlatformSetReadOnly(LPCSTR pszPath) {
    std::string const path = dry::absolute(pszPath);
    std::shared_ptr<dry::File> pFile;
    DWORD const dwError = dry::find_file(path, 0, FILE_SHARE_READ | FILE_SHARE_WRITE, pFile);
    if (dwError != NO_ERROR) {
        return dry::fail("PlatformSetReadOnly", path, dwError);
    }
    dry::note(dry::Change::Kind::Permissions, *pFile);
    return TRUE;
}

BOOL DryPlatformGetFileIdentity(HANDLE hFile, PlatformFileIdentity* pIdentity) {
    dry::Handle const* const pHandle = dry::file_handle("PlatformGetFileIdentity", hFile, 0);
    if (pHandle == nullptr) {
        return FALSE;
    }
    *pIdentity = pHandle->pFile->identity;
    return TRUE;
}

BOOL DryPlatformGetNameIdentity(LPCSTR pszPath, PlatformFileIdentity* pIdentity) {
    std::string const path = dry::absolute(pszPath);
    dry::Name const* const pName = dry::find_name(path.c_str());
    std::shared_ptr<dry::File> pFile = pName != nullptr ? pName->pFile : nullptr;
    DWORD dwError = NO_ERROR;
    if (pFile == nullptr) {
        dwError = dry::find_file(path, 0, FILE_SHARE_READ | FILE_SHARE_WRITE, pFile);
    }
    if (dwError != NO_ERROR) {
        return dry::fail("PlatformGetNameIdentity", path, dwError);
    }
    *pIdentity = pFile->identity;
    return TRUE;
}

BOOL DryPlatformTestCompanion(HANDLE hFile, LPCSTR pszPath, LPCSTR pszSoundPath) {
    dry::Handle const* const pHandle = dry::file_handle("PlatformTestCompanion", hFile, 0);
    if (pHandle == nullptr) {
        return FALSE;
    }
    std::string const& onDisk = pHandle->pFile->realName;
    if (onDisk.empty()) {
        return TRUE;
    }
    HANDLE hLook = INVALID_HANDLE_VALUE;
    DWORD dwError = dry::look(onDisk, 0, FILE_SHARE_READ | FILE_SHARE_WRITE, hLook);
    if (dwError == NO_ERROR) {
        if (!PlatformTestCompanion(hLook, onDisk.c_str(), pszSoundPath)) {
            dwError = GetLastError();
        }
        CloseHandle(hLook);
    }
    return dwError == NO_ERROR ? TRUE : dry::fail("PlatformTestCompanion", pszPath, dwError);
}

DWORD DryPlatformCopyBytes(HANDLE hFrom, HANDLE hTo, DWORD dwBytes) {
    dry::Handle* const pFrom = dry::file_handle("PlatformCopyBytes", hFrom, GENERIC_READ);
    dry::Handle* const pTo = dry::file_handle("PlatformCopyBytes", hTo, GENERIC_WRITE);
    if (pFrom == nullptr || pTo == nullptr || pFrom->pFile == pTo->pFile) {
        return 0;
    }
    dry::Contents const& from = pFrom->pFile->contents;
    uint64_t const ullThere =
        from.size() > pFrom->ullFileOffset ? from.size() - pFrom->ullFileOffset : 0;
    DWORD const dwMoved = static_cast<DWORD>(std::min<uint64_t>(dwBytes, ullThere));
    if (dwMoved == 0 || !dry::fits_disk(pTo->ullFileOffset + dwMoved)) {
        return 0;
    }
    pTo->pFile->contents.write_range(pTo->ullFileOffset, from, pFrom->ullFileOffset, dwMoved);
    dry::note_write(*pTo->pFile, pTo->ullFileOffset, dwMoved);
    pFrom->ullFileOffset += dwMoved;
    pTo->ullFileOffset += dwMoved;
    return dwMoved;
}
