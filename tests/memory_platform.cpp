// What is left out of the layer that ships: other processes and threads (so no locks), permissions,
// links, directories other than "/d/" and "/tmp/", requests that the driver never makes, and what a
// flush does. A file holds up to 1 GiB. A handle is never given out twice, so that its use after
// the close is error 6.
#include "tests/memory_platform.h"

#include "platform/split_path.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <set>
#include <string_view>
#include <utility>

namespace {

constexpr uint64_t MOST_FILE_BYTES = uint64_t{1} << 30;
constexpr DWORD REMOVES = 1; // access bit of a handle that deletes on close

using Files = std::map<std::string, std::string>;

enum class Kind : uint8_t { File, Mapping };

struct Object {
    Kind kind = Kind::File;
    DWORD dwAccess = 0;
    DWORD dwShared = 0; // the accesses that others may have
    Files::iterator file;
    uint64_t ullFileOffset = 0;
    size_t mappingBytes = 0;
};

struct State {
    Files files;
    std::map<uintptr_t, Object> objects; // what is open, by handle
    uintptr_t nHandlesGiven = 0;
    std::set<void const*> views;
    unsigned nHeapBlocks = 0;
    time_t now = 1700000000;
    UINT uErrorMode = 0;
    DWORD dwLastError = NO_ERROR;
};

State& state() {
    static State theState;
    return theState;
}

BOOL fail(DWORD dwError) {
    SetLastError(dwError);
    return FALSE;
}

// Null unless the handle is open and of this kind.
Object* find(HANDLE handle, Kind kind) {
    auto const found = state().objects.find(reinterpret_cast<uintptr_t>(handle));
    bool const bFound = found != state().objects.end() && found->second.kind == kind;
    return bFound ? &found->second : nullptr;
}

HANDLE give_handle(Object const& object) {
    uintptr_t const handle = 4 * ++state().nHandlesGiven;
    state().objects.emplace(handle, object);
    return reinterpret_cast<HANDLE>(handle);
}

// A file handle with this access. Null, with the error set, if there is none.
Object* find_file(HANDLE handle, DWORD dwAccessNeeded) {
    Object* const pObject = find(handle, Kind::File);
    if (pObject == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
    } else if ((pObject->dwAccess & dwAccessNeeded) != dwAccessNeeded) {
        SetLastError(ERROR_ACCESS_DENIED);
        return nullptr;
    }
    return pObject;
}

std::string full_path(std::string_view path) {
    std::string full = path.front() == '/' ? "" : "/d";
    for (size_t begin = 0; begin < path.size();) {
        size_t const end = std::min(path.find('/', begin), path.size());
        std::string_view const component = path.substr(begin, end - begin);
        if (!component.empty() && component != ".")
            full.append("/").append(component);
        begin = end + 1;
    }
    return full.empty() || path.back() == '/' ? full + "/" : full;
}

DWORD locate(LPCSTR pszPath, std::string& path) {
    if (pszPath == nullptr || *pszPath == '\0')
        return ERROR_PATH_NOT_FOUND;
    path = full_path(pszPath);
    std::string const directory = path.substr(0, path.rfind('/') + 1);
    bool const bThere = (directory == "/d/" || directory == "/tmp/") && directory != path;
    return bThere ? NO_ERROR : ERROR_PATH_NOT_FOUND;
}

std::vector<Object*> handles_of(Files::iterator file) {
    std::vector<Object*> found;
    for (auto& [handle, object] : state().objects)
        if (object.kind == Kind::File && object.file == file)
            found.push_back(&object);
    return found;
}

DWORD find_closed_file(LPCSTR pszPath, Files::iterator& file) {
    std::string path;
    DWORD const dwError = locate(pszPath, path);
    if (dwError != NO_ERROR)
        return dwError;
    file = state().files.find(path);
    if (file == state().files.end())
        return ERROR_FILE_NOT_FOUND;
    return handles_of(file).empty() ? NO_ERROR : ERROR_SHARING_VIOLATION;
}

// Whether all handles that the file has share it with one more, and that one with them. A handle
// without any access denies nothing.
bool may_share(Object const& wanted, bool bEmpties) {
    DWORD const dwNeeded = wanted.dwAccess | (bEmpties ? GENERIC_WRITE : 0);
    for (Object const* const pOther : handles_of(wanted.file))
        if ((pOther->dwAccess != 0 && (dwNeeded & ~pOther->dwShared) != 0) ||
            (wanted.dwAccess != 0 && (pOther->dwAccess & ~wanted.dwShared) != 0))
            return false;
    return true;
}

DWORD open_file(LPCSTR pszPath, DWORD dwDisposition, Object& object) {
    std::string path;
    DWORD const dwError = locate(pszPath, path);
    if (dwError != NO_ERROR)
        return dwError;
    Files& files = state().files;
    bool const bEmpties = dwDisposition == CREATE_ALWAYS || dwDisposition == TRUNCATE_EXISTING;
    object.file = files.find(path);
    if (object.file == files.end()) {
        if (dwDisposition == OPEN_EXISTING || dwDisposition == TRUNCATE_EXISTING)
            return ERROR_FILE_NOT_FOUND;
        object.file = files.emplace(path, std::string()).first;
        return NO_ERROR;
    }
    if (dwDisposition == CREATE_NEW)
        return ERROR_FILE_EXISTS;
    if (!may_share(object, bEmpties))
        return ERROR_SHARING_VIOLATION;
    if (bEmpties)
        object.file->second.clear();
    return NO_ERROR;
}

DWORD low_half(uint64_t ullValue) {
    DWORD const dwLow = static_cast<DWORD>(ullValue);
    if (dwLow == INVALID_SET_FILE_POINTER)
        SetLastError(NO_ERROR);
    return dwLow;
}

DWORD give_text(std::string const& text, char* pBuffer, DWORD dwBufferBytes) {
    if (text.size() >= dwBufferBytes || pBuffer == nullptr)
        return static_cast<DWORD>(text.size() + 1);
    memcpy(pBuffer, text.c_str(), text.size() + 1);
    return static_cast<DWORD>(text.size());
}

} // namespace

namespace memory_platform {

void reset() {
    state() = {};
}
void put_file(std::string const& path, std::string contents) {
    state().files[path] = std::move(contents);
}
std::string const& get_file(std::string const& path) {
    return state().files.at(path);
}
bool has_file(std::string const& path) {
    return state().files.count(path) != 0;
}
std::vector<std::string> names() {
    std::vector<std::string> all;
    for (auto const& [name, contents] : state().files)
        all.push_back(name);
    return all;
}
unsigned open_handles() {
    return static_cast<unsigned>(state().objects.size());
}
unsigned heap_blocks() {
    return state().nHeapBlocks;
}
unsigned mapped_views() {
    return static_cast<unsigned>(state().views.size());
}

} // namespace memory_platform

// Linked in place of the C library's. Files are named after the time, and the driver tries until
// the second is over if such a name is taken: here every look at the clock finds a later second.
extern "C" time_t __wrap_time(time_t* pTime);
extern "C" time_t __wrap_time(time_t* pTime) {
    if (pTime != nullptr)
        *pTime = state().now;
    return state().now++;
}

HANDLE WINAPI CreateFileA(LPCSTR lpFileName, DWORD dwDesiredAccess, DWORD dwShareMode,
                          LPVOID /*lpSecurityAttributes*/, DWORD dwCreationDisposition,
                          DWORD dwFlagsAndAttributes, HANDLE /*hTemplateFile*/) {
    Object object;
    object.dwAccess = dwDesiredAccess;
    if ((dwFlagsAndAttributes & FILE_FLAG_DELETE_ON_CLOSE) != 0)
        object.dwAccess |= REMOVES;
    object.dwShared = ((dwShareMode & FILE_SHARE_READ) != 0 ? GENERIC_READ : 0) |
                      ((dwShareMode & FILE_SHARE_WRITE) != 0 ? GENERIC_WRITE : 0) |
                      ((dwShareMode & FILE_SHARE_DELETE) != 0 ? REMOVES : 0);
    DWORD const dwError = open_file(lpFileName, dwCreationDisposition, object);
    if (dwError != NO_ERROR) {
        fail(dwError);
        return INVALID_HANDLE_VALUE;
    }
    return give_handle(object);
}

BOOL WINAPI CloseHandle(HANDLE hObject) {
    auto const found = state().objects.find(reinterpret_cast<uintptr_t>(hObject));
    if (found == state().objects.end())
        return fail(ERROR_INVALID_HANDLE);
    Object const closed = found->second;
    state().objects.erase(found);
    if (closed.kind == Kind::File && (closed.dwAccess & REMOVES) != 0 &&
        handles_of(closed.file).empty())
        state().files.erase(closed.file);
    return TRUE;
}

BOOL WINAPI ReadFile(HANDLE hFile, LPVOID lpBuffer, DWORD nNumberOfBytesToRead,
                     LPDWORD lpNumberOfBytesRead, LPVOID /*lpOverlapped*/) {
    if (lpNumberOfBytesRead != nullptr)
        *lpNumberOfBytesRead = 0;
    Object* const pFile = find_file(hFile, GENERIC_READ);
    if (pFile == nullptr)
        return FALSE;
    std::string const& bytes = pFile->file->second;
    if (pFile->ullFileOffset < bytes.size()) {
        size_t const count = bytes.copy(static_cast<char*>(lpBuffer), nNumberOfBytesToRead,
                                        static_cast<size_t>(pFile->ullFileOffset));
        pFile->ullFileOffset += count;
        if (lpNumberOfBytesRead != nullptr)
            *lpNumberOfBytesRead = static_cast<DWORD>(count);
    }
    return TRUE;
}

BOOL WINAPI WriteFile(HANDLE hFile, LPCVOID lpBuffer, DWORD nNumberOfBytesToWrite,
                      LPDWORD lpNumberOfBytesWritten, LPVOID /*lpOverlapped*/) {
    if (lpNumberOfBytesWritten != nullptr)
        *lpNumberOfBytesWritten = 0;
    Object* const pFile = find_file(hFile, GENERIC_WRITE);
    if (pFile == nullptr)
        return FALSE;
    uint64_t const ullEnd = pFile->ullFileOffset + nNumberOfBytesToWrite;
    if (nNumberOfBytesToWrite != 0) {
        if (ullEnd > MOST_FILE_BYTES)
            return fail(ERROR_DISK_FULL);
        std::string& bytes = pFile->file->second;
        if (bytes.size() < ullEnd)
            bytes.resize(static_cast<size_t>(ullEnd));
        memcpy(bytes.data() + pFile->ullFileOffset, lpBuffer, nNumberOfBytesToWrite);
        pFile->ullFileOffset = ullEnd;
    }
    if (lpNumberOfBytesWritten != nullptr)
        *lpNumberOfBytesWritten = nNumberOfBytesToWrite;
    return TRUE;
}

DWORD WINAPI SetFilePointer(HANDLE hFile, LONG lDistanceToMove, PLONG lpDistanceToMoveHigh,
                            DWORD dwMoveMethod) {
    Object* const pFile = find_file(hFile, 0);
    if (pFile == nullptr)
        return INVALID_SET_FILE_POINTER;
    int64_t llDistance = lDistanceToMove;
    if (lpDistanceToMoveHigh != nullptr)
        llDistance = int64_t{*lpDistanceToMoveHigh} << 32 | static_cast<uint32_t>(lDistanceToMove);
    uint64_t const ullStart = dwMoveMethod == FILE_CURRENT ? pFile->ullFileOffset
                              : dwMoveMethod == FILE_END   ? pFile->file->second.size()
                                                           : 0;
    int64_t const llResult = static_cast<int64_t>(ullStart) + llDistance;
    if (llResult < 0 || (lpDistanceToMoveHigh == nullptr && llResult > 0xFFFFFFFF)) {
        fail(llResult < 0 ? ERROR_NEGATIVE_SEEK : ERROR_INVALID_PARAMETER);
        return INVALID_SET_FILE_POINTER;
    }
    pFile->ullFileOffset = static_cast<uint64_t>(llResult);
    if (lpDistanceToMoveHigh != nullptr)
        *lpDistanceToMoveHigh = static_cast<LONG>(pFile->ullFileOffset >> 32);
    return low_half(pFile->ullFileOffset);
}

BOOL WINAPI SetEndOfFile(HANDLE hFile) {
    Object* const pFile = find_file(hFile, GENERIC_WRITE);
    if (pFile == nullptr)
        return FALSE;
    if (pFile->ullFileOffset > MOST_FILE_BYTES)
        return fail(ERROR_DISK_FULL);
    pFile->file->second.resize(static_cast<size_t>(pFile->ullFileOffset));
    return TRUE;
}

DWORD WINAPI GetFileSize(HANDLE hFile, LPDWORD lpFileSizeHigh) {
    Object const* const pFile = find_file(hFile, 0);
    if (pFile == nullptr)
        return INVALID_FILE_SIZE;
    if (lpFileSizeHigh != nullptr)
        *lpFileSizeHigh = 0;
    return low_half(pFile->file->second.size());
}

BOOL WINAPI FlushFileBuffers(HANDLE hFile) {
    return find_file(hFile, GENERIC_WRITE) != nullptr;
}

BOOL WINAPI DeleteFileA(LPCSTR lpFileName) {
    Files::iterator file;
    DWORD const dwError = find_closed_file(lpFileName, file);
    if (dwError != NO_ERROR)
        return fail(dwError);
    state().files.erase(file);
    return TRUE;
}

BOOL WINAPI MoveFileA(LPCSTR lpExistingFileName, LPCSTR lpNewFileName) {
    Files::iterator file;
    DWORD dwError = find_closed_file(lpExistingFileName, file);
    std::string newPath;
    if (dwError == NO_ERROR)
        dwError = locate(lpNewFileName, newPath);
    if (dwError == NO_ERROR && state().files.count(newPath) != 0)
        dwError = ERROR_ALREADY_EXISTS;
    if (dwError != NO_ERROR)
        return fail(dwError);
    auto node = state().files.extract(file);
    node.key() = newPath;
    state().files.insert(std::move(node));
    return TRUE;
}

DWORD WINAPI GetFullPathNameA(LPCSTR lpFileName, DWORD nBufferLength, LPSTR lpBuffer,
                              LPSTR* lpFilePart) {
    if (lpFileName == nullptr || *lpFileName == '\0') {
        fail(ERROR_INVALID_NAME);
        return 0;
    }
    std::string const path = full_path(lpFileName);
    DWORD const dwResult = give_text(path, lpBuffer, nBufferLength);
    if (lpFilePart != nullptr) {
        size_t const nameBegin = path.rfind('/') + 1;
        bool const bHasPart = dwResult == path.size() && nameBegin < path.size();
        *lpFilePart = bHasPart ? lpBuffer + nameBegin : nullptr;
    }
    return dwResult;
}

DWORD WINAPI GetLastError(void) {
    return state().dwLastError;
}
void WINAPI SetLastError(DWORD dwErrCode) {
    state().dwLastError = dwErrCode;
}

HANDLE WINAPI GetProcessHeap(void) {
    return reinterpret_cast<HANDLE>(uintptr_t{1});
}

LPVOID WINAPI HeapAlloc(HANDLE /*hHeap*/, DWORD dwFlags, SIZE_T dwBytes) {
    ++state().nHeapBlocks;
    return (dwFlags & HEAP_ZERO_MEMORY) != 0 ? calloc(1, dwBytes) : malloc(dwBytes);
}

BOOL WINAPI HeapFree(HANDLE /*hHeap*/, DWORD /*dwFlags*/, LPVOID lpMem) {
    if (lpMem != nullptr)
        --state().nHeapBlocks;
    free(lpMem);
    return TRUE;
}

HANDLE WINAPI CreateFileMappingA(HANDLE hFile, LPVOID /*lpAttributes*/, DWORD flProtect,
                                 DWORD dwMaximumSizeHigh, DWORD dwMaximumSizeLow, LPCSTR lpName) {
    if (hFile != INVALID_HANDLE_VALUE || lpName != nullptr || flProtect != PAGE_READWRITE ||
        dwMaximumSizeHigh != 0 || dwMaximumSizeLow == 0) {
        fail(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    Object object;
    object.kind = Kind::Mapping;
    object.mappingBytes = dwMaximumSizeLow;
    return give_handle(object);
}

LPVOID WINAPI MapViewOfFile(HANDLE hFileMappingObject, DWORD dwDesiredAccess,
                            DWORD dwFileOffsetHigh, DWORD dwFileOffsetLow,
                            SIZE_T dwNumberOfBytesToMap) {
    Object const* const pMapping = find(hFileMappingObject, Kind::Mapping);
    // Each view has its own bytes here, so it must be the whole.
    if (pMapping == nullptr || dwDesiredAccess != FILE_MAP_WRITE || dwFileOffsetHigh != 0 ||
        dwFileOffsetLow != 0 || dwNumberOfBytesToMap > pMapping->mappingBytes) {
        fail(pMapping == nullptr ? ERROR_INVALID_HANDLE : ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    void* const pView = calloc(1, pMapping->mappingBytes);
    state().views.insert(pView);
    return pView;
}

BOOL WINAPI UnmapViewOfFile(LPCVOID lpBaseAddress) {
    if (state().views.erase(lpBaseAddress) == 0)
        return fail(ERROR_INVALID_PARAMETER);
    free(const_cast<void*>(lpBaseAddress));
    return TRUE;
}

UINT WINAPI GetSystemDirectoryA(LPSTR lpBuffer, UINT uSize) {
    return give_text("/etc", lpBuffer, uSize);
}

DWORD WINAPI GetTempPathA(DWORD nBufferLength, LPSTR lpBuffer) {
    return give_text("/tmp/", lpBuffer, nBufferLength);
}

BOOL WINAPI GetDiskFreeSpaceExA(LPCSTR /*lpDirectoryName*/, ULARGE_INTEGER* lpFreeBytesAvailable,
                                ULARGE_INTEGER* lpTotalNumberOfBytes,
                                ULARGE_INTEGER* lpTotalNumberOfFreeBytes) {
    for (ULARGE_INTEGER* const pBytes :
         {lpFreeBytesAvailable, lpTotalNumberOfBytes, lpTotalNumberOfFreeBytes})
        if (pBytes != nullptr)
            pBytes->QuadPart = uint64_t{1} << 40;
    return TRUE;
}

UINT WINAPI SetErrorMode(UINT uMode) {
    return std::exchange(state().uErrorMode, uMode);
}

BOOL WINAPI DriverCallback(DWORD_PTR dwCallback, DWORD dwFlags, HDRVR hDevice, DWORD dwMsg,
                           DWORD_PTR dwUser, DWORD_PTR dwParam1, DWORD_PTR dwParam2) {
    if (dwCallback == 0 || dwFlags != DCB_FUNCTION)
        return FALSE;
    reinterpret_cast<LPDRVCALLBACK>(dwCallback)(hDevice, dwMsg, dwUser, dwParam1, dwParam2);
    return TRUE;
}

bool PlatformSplitPath(LPCSTR pszPath, PlatformPathParts* pParts) {
    return platform::split_path(pszPath, pParts, {"/", false, nullptr});
}

bool PlatformSameFileName(LPCSTR pszName1, LPCSTR pszName2) {
    return strcmp(pszName1, pszName2) == 0;
}

BOOL PlatformCopyPermissions(HANDLE hFrom, HANDLE hTo) {
    return find_file(hFrom, 0) != nullptr && find_file(hTo, GENERIC_WRITE) != nullptr;
}
