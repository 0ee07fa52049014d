// What is left out of the layer that ships: other processes and threads (so no locks), permissions,
// links, directories (each one is there), requests that the driver never makes, and what a flush
// does. Paths and error numbers come from the layer that ships. A handle is never given out twice,
// so that its use after the close is error 6.
#include "platform/memory_platform.h"

#include "platform/posix_errors.h"

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <set>
#include <utility>

using posix::fail;

namespace {

constexpr uint64_t MOST_FILE_BYTES = uint64_t{1} << 30;

using Files = std::map<std::string, std::string>;

struct Object {
    Files::value_type* pFile = nullptr; // null in a mapping
    DWORD dwAccess = 0;
    DWORD dwShared = 0; // the accesses that others may have
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
};

State& state() {
    static State theState;
    return theState;
}

HANDLE give_handle(Object const& object) {
    uintptr_t const handle = 4 * ++state().nHandlesGiven;
    state().objects.emplace(handle, object);
    return reinterpret_cast<HANDLE>(handle);
}

Object* find_object(HANDLE handle) {
    auto const found = state().objects.find(reinterpret_cast<uintptr_t>(handle));
    return found != state().objects.end() ? &found->second : nullptr;
}

// A file handle with this access. Null, with the error set, if there is none.
Object* find_file(HANDLE handle, DWORD dwAccessNeeded) {
    Object* const pObject = find_object(handle);
    if (pObject == nullptr || pObject->pFile == nullptr)
        fail(ERROR_INVALID_HANDLE);
    else if ((pObject->dwAccess & dwAccessNeeded) != dwAccessNeeded)
        fail(ERROR_ACCESS_DENIED);
    else
        return pObject;
    return nullptr;
}

// Whether each handle that the file has lets this one be, and is let be by it.
bool may_share(Object const& wanted, bool bEmpties) {
    DWORD const dwNeeded = wanted.dwAccess | (bEmpties ? GENERIC_WRITE : 0);
    for (auto const& [handle, other] : state().objects)
        if (other.pFile == wanted.pFile &&
            ((dwNeeded & ~other.dwShared) != 0 || (other.dwAccess & ~wanted.dwShared) != 0))
            return false;
    return true;
}

DWORD open_file(LPCSTR pszPath, DWORD dwDisposition, Object& object) {
    auto const [file, bNew] = state().files.try_emplace(pszPath);
    object.pFile = &*file;
    bool const bEmpties = dwDisposition == CREATE_ALWAYS || dwDisposition == TRUNCATE_EXISTING;
    if (bNew && (dwDisposition == OPEN_EXISTING || dwDisposition == TRUNCATE_EXISTING)) {
        state().files.erase(file);
        return ERROR_FILE_NOT_FOUND;
    }
    if (!bNew && dwDisposition == CREATE_NEW)
        return ERROR_FILE_EXISTS;
    if (!may_share(object, bEmpties))
        return ERROR_SHARING_VIOLATION;
    if (bEmpties)
        file->second.clear();
    return NO_ERROR;
}

// Finds a file to remove or to rename.
DWORD find_closed_file(LPCSTR pszPath, Files::iterator& file) {
    file = state().files.find(pszPath);
    if (file == state().files.end())
        return ERROR_FILE_NOT_FOUND;
    for (auto const& [handle, object] : state().objects)
        if (object.pFile == &*file)
            return ERROR_SHARING_VIOLATION;
    return NO_ERROR;
}

// Makes a file longer or shorter.
BOOL resize(std::string& bytes, uint64_t ullBytes) {
    if (ullBytes > MOST_FILE_BYTES)
        return fail(ERROR_DISK_FULL);
    bytes.resize(static_cast<size_t>(ullBytes));
    return TRUE;
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
extern "C" time_t __wrap_time(time_t* /*pTime*/) {
    return state().now++;
}

HANDLE WINAPI CreateFileA(LPCSTR lpFileName, DWORD dwDesiredAccess, DWORD dwShareMode,
                          LPVOID /*lpSecurityAttributes*/, DWORD dwCreationDisposition,
                          DWORD /*dwFlagsAndAttributes*/, HANDLE /*hTemplateFile*/) {
    Object object;
    object.dwAccess = dwDesiredAccess;
    object.dwShared = ((dwShareMode & FILE_SHARE_READ) != 0 ? GENERIC_READ : 0) |
                      ((dwShareMode & FILE_SHARE_WRITE) != 0 ? GENERIC_WRITE : 0);
    DWORD const dwError = open_file(lpFileName, dwCreationDisposition, object);
    if (dwError == NO_ERROR)
        return give_handle(object);
    fail(dwError);
    return INVALID_HANDLE_VALUE;
}

BOOL WINAPI CloseHandle(HANDLE hObject) {
    bool const bClosed = state().objects.erase(reinterpret_cast<uintptr_t>(hObject)) != 0;
    return bClosed ? TRUE : fail(ERROR_INVALID_HANDLE);
}

BOOL WINAPI ReadFile(HANDLE hFile, LPVOID lpBuffer, DWORD nNumberOfBytesToRead,
                     LPDWORD lpNumberOfBytesRead, LPVOID /*lpOverlapped*/) {
    *lpNumberOfBytesRead = 0;
    Object* const pObject = find_file(hFile, GENERIC_READ);
    if (pObject == nullptr)
        return FALSE;
    std::string const& bytes = pObject->pFile->second;
    if (pObject->ullFileOffset < bytes.size()) {
        *lpNumberOfBytesRead =
            static_cast<DWORD>(bytes.copy(static_cast<char*>(lpBuffer), nNumberOfBytesToRead,
                                          static_cast<size_t>(pObject->ullFileOffset)));
        pObject->ullFileOffset += *lpNumberOfBytesRead;
    }
    return TRUE;
}

BOOL WINAPI WriteFile(HANDLE hFile, LPCVOID lpBuffer, DWORD nNumberOfBytesToWrite,
                      LPDWORD lpNumberOfBytesWritten, LPVOID /*lpOverlapped*/) {
    *lpNumberOfBytesWritten = 0;
    Object* const pObject = find_file(hFile, GENERIC_WRITE);
    if (pObject == nullptr)
        return FALSE;
    if (nNumberOfBytesToWrite == 0)
        return TRUE;
    std::string& bytes = pObject->pFile->second;
    uint64_t const ullEnd = pObject->ullFileOffset + nNumberOfBytesToWrite;
    if (ullEnd > bytes.size() && !resize(bytes, ullEnd))
        return FALSE;
    memcpy(bytes.data() + pObject->ullFileOffset, lpBuffer, nNumberOfBytesToWrite);
    pObject->ullFileOffset = ullEnd;
    *lpNumberOfBytesWritten = nNumberOfBytesToWrite;
    return TRUE;
}

DWORD WINAPI SetFilePointer(HANDLE hFile, LONG lDistanceToMove, PLONG lpDistanceToMoveHigh,
                            DWORD dwMoveMethod) {
    Object* const pObject = find_file(hFile, 0);
    if (pObject == nullptr)
        return INVALID_SET_FILE_POINTER;
    uint64_t const ullStart = dwMoveMethod == FILE_END ? pObject->pFile->second.size() : 0;
    pObject->ullFileOffset =
        ullStart + static_cast<uint64_t>(int64_t{*lpDistanceToMoveHigh} << 32 |
                                         static_cast<uint32_t>(lDistanceToMove));
    *lpDistanceToMoveHigh = static_cast<LONG>(pObject->ullFileOffset >> 32);
    return static_cast<DWORD>(pObject->ullFileOffset);
}

BOOL WINAPI SetEndOfFile(HANDLE hFile) {
    Object* const pObject = find_file(hFile, GENERIC_WRITE);
    return pObject != nullptr ? resize(pObject->pFile->second, pObject->ullFileOffset) : FALSE;
}

DWORD WINAPI GetFileSize(HANDLE hFile, LPDWORD lpFileSizeHigh) {
    Object const* const pObject = find_file(hFile, 0);
    if (pObject == nullptr)
        return INVALID_FILE_SIZE;
    *lpFileSizeHigh = 0;
    return static_cast<DWORD>(pObject->pFile->second.size());
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
    DWORD const dwError = find_closed_file(lpExistingFileName, file);
    if (dwError != NO_ERROR)
        return fail(dwError);
    if (memory_platform::has_file(lpNewFileName))
        return fail(ERROR_ALREADY_EXISTS);
    auto node = state().files.extract(file);
    node.key() = lpNewFileName;
    state().files.insert(std::move(node));
    return TRUE;
}

HANDLE WINAPI GetProcessHeap(void) {
    return reinterpret_cast<HANDLE>(uintptr_t{1});
}

LPVOID WINAPI HeapAlloc(HANDLE /*hHeap*/, DWORD dwFlags, SIZE_T dwBytes) {
    ++state().nHeapBlocks;
    return (dwFlags & HEAP_ZERO_MEMORY) != 0 ? calloc(1, dwBytes) : malloc(dwBytes);
}

BOOL WINAPI HeapFree(HANDLE /*hHeap*/, DWORD /*dwFlags*/, LPVOID lpMem) {
    state().nHeapBlocks -= lpMem != nullptr;
    free(lpMem);
    return TRUE;
}

HANDLE WINAPI CreateFileMappingA(HANDLE /*hFile*/, LPVOID /*lpAttributes*/, DWORD /*flProtect*/,
                                 DWORD /*dwMaximumSizeHigh*/, DWORD dwMaximumSizeLow,
                                 LPCSTR /*lpName*/) {
    Object object;
    object.mappingBytes = dwMaximumSizeLow;
    return give_handle(object);
}

LPVOID WINAPI MapViewOfFile(HANDLE hFileMappingObject, DWORD /*dwDesiredAccess*/,
                            DWORD /*dwFileOffsetHigh*/, DWORD /*dwFileOffsetLow*/,
                            SIZE_T /*dwNumberOfBytesToMap*/) {
    Object const* const pObject = find_object(hFileMappingObject);
    if (pObject == nullptr || pObject->mappingBytes == 0) {
        fail(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    return const_cast<void*>(*state().views.insert(calloc(1, pObject->mappingBytes)).first);
}

BOOL WINAPI UnmapViewOfFile(LPCVOID lpBaseAddress) {
    if (state().views.erase(lpBaseAddress) == 0)
        return fail(ERROR_INVALID_PARAMETER);
    free(const_cast<void*>(lpBaseAddress));
    return TRUE;
}

BOOL WINAPI GetDiskFreeSpaceExA(LPCSTR /*lpDirectoryName*/, ULARGE_INTEGER* lpFreeBytesAvailable,
                                ULARGE_INTEGER* lpTotalNumberOfBytes,
                                ULARGE_INTEGER* lpTotalNumberOfFreeBytes) {
    for (ULARGE_INTEGER* const pBytes :
         {lpFreeBytesAvailable, lpTotalNumberOfBytes, lpTotalNumberOfFreeBytes})
        pBytes->QuadPart = uint64_t{1} << 40;
    return TRUE;
}

UINT WINAPI SetErrorMode(UINT /*uMode*/) {
    return 0;
}

// The clock needs no rest here to show another second.
void WINAPI Sleep(DWORD /*dwMilliseconds*/) {}

BOOL WINAPI DriverCallback(DWORD_PTR dwCallback, DWORD /*dwFlags*/, HDRVR hDevice, DWORD dwMsg,
                           DWORD_PTR dwUser, DWORD_PTR dwParam1, DWORD_PTR dwParam2) {
    reinterpret_cast<LPDRVCALLBACK>(dwCallback)(hDevice, dwMsg, dwUser, dwParam1, dwParam2);
    return TRUE;
}

HANDLE PlatformCreatePrivateFile(LPCSTR lpFileName, DWORD dwDesiredAccess, DWORD dwShareMode) {
    return CreateFileA(lpFileName, dwDesiredAccess, dwShareMode, nullptr, CREATE_NEW,
                       FILE_ATTRIBUTE_NORMAL, nullptr);
}

DWORD PlatformCopyBytes(HANDLE /*hFrom*/, HANDLE /*hTo*/, DWORD /*dwBytes*/) {
    return 0;
}

BOOL PlatformCopyPermissions(HANDLE hFrom, HANDLE hTo) {
    return find_file(hFrom, 0) != nullptr && find_file(hTo, GENERIC_WRITE) != nullptr;
}
