// The driver that only pretends: in a build with KIV_PLATFORM_DRY these functions take the places
// of the calls that touch files. Each has the outcome of its call, but what would change on the
// disk changes in memory (dry_platform.h). Included by platform.h.
#pragma once

#include <ctime> // before its name is another's

extern "C" {
HANDLE WINAPI DryCreateFileA(LPCSTR lpFileName, DWORD dwDesiredAccess, DWORD dwShareMode,
                             LPVOID lpSecurityAttributes, DWORD dwCreationDisposition,
                             DWORD dwFlagsAndAttributes, HANDLE hTemplateFile);
BOOL WINAPI DryCloseHandle(HANDLE hObject);
BOOL WINAPI DryReadFile(HANDLE hFile, LPVOID lpBuffer, DWORD nNumberOfBytesToRead,
                        LPDWORD lpNumberOfBytesRead, LPVOID lpOverlapped);
BOOL WINAPI DryWriteFile(HANDLE hFile, LPCVOID lpBuffer, DWORD nNumberOfBytesToWrite,
                         LPDWORD lpNumberOfBytesWritten, LPVOID lpOverlapped);
DWORD WINAPI DrySetFilePointer(HANDLE hFile, LONG lDistanceToMove, PLONG lpDistanceToMoveHigh,
                               DWORD dwMoveMethod);
BOOL WINAPI DrySetEndOfFile(HANDLE hFile);
DWORD WINAPI DryGetFileSize(HANDLE hFile, LPDWORD lpFileSizeHigh);
BOOL WINAPI DryFlushFileBuffers(HANDLE hFile);
BOOL WINAPI DryDeleteFileA(LPCSTR lpFileName);
BOOL WINAPI DryMoveFileA(LPCSTR lpExistingFileName, LPCSTR lpNewFileName);
HANDLE WINAPI DryCreateFileMappingA(HANDLE hFile, LPVOID lpAttributes, DWORD flProtect,
                                    DWORD dwMaximumSizeHigh, DWORD dwMaximumSizeLow, LPCSTR lpName);
LPVOID WINAPI DryMapViewOfFile(HANDLE hFileMappingObject, DWORD dwDesiredAccess,
                               DWORD dwFileOffsetHigh, DWORD dwFileOffsetLow,
                               SIZE_T dwNumberOfBytesToMap);
BOOL WINAPI DryUnmapViewOfFile(LPCVOID lpBaseAddress);
BOOL WINAPI DryGetDiskFreeSpaceExA(LPCSTR lpDirectoryName, ULARGE_INTEGER* lpFreeBytesAvailable,
                                   ULARGE_INTEGER* lpTotalNumberOfBytes,
                                   ULARGE_INTEGER* lpTotalNumberOfFreeBytes);
void WINAPI DrySleep(DWORD dwMilliseconds);
time_t DryTime(time_t* pTime);
HANDLE DryPlatformCreatePrivateFile(LPCSTR lpFileName, DWORD dwDesiredAccess, DWORD dwShareMode,
                                    HANDLE hLike);
BOOL DryPlatformSetReadOnly(LPCSTR pszPath);
BOOL DryPlatformCopyPermissions(HANDLE hFrom, HANDLE hTo, bool bCompanion);
BOOL DryPlatformGetFileIdentity(HANDLE hFile, struct PlatformFileIdentity* pIdentity);
BOOL DryPlatformGetNameIdentity(LPCSTR pszPath, struct PlatformFileIdentity* pIdentity);
BOOL DryPlatformTestCompanion(HANDLE hFile, LPCSTR pszPath, LPCSTR pszSoundPath);
DWORD DryPlatformCopyBytes(HANDLE hFrom, HANDLE hTo, DWORD dwBytes);
}

#if !defined(KIV_PLATFORM_OWN_CALLS) // the sources of this layer reach the true calls

#define CreateFileA DryCreateFileA
#define CloseHandle DryCloseHandle
#define ReadFile DryReadFile
#define WriteFile DryWriteFile
#define SetFilePointer DrySetFilePointer
#define SetEndOfFile DrySetEndOfFile
#define GetFileSize DryGetFileSize
#define FlushFileBuffers DryFlushFileBuffers
#define DeleteFileA DryDeleteFileA
#define MoveFileA DryMoveFileA
#define CreateFileMappingA DryCreateFileMappingA
#define MapViewOfFile DryMapViewOfFile
#define UnmapViewOfFile DryUnmapViewOfFile
#define GetDiskFreeSpaceExA DryGetDiskFreeSpaceExA
#define Sleep DrySleep
#define PlatformCreatePrivateFile DryPlatformCreatePrivateFile
#define PlatformCopyPermissions DryPlatformCopyPermissions
#define PlatformSetReadOnly DryPlatformSetReadOnly
#define PlatformCopyBytes DryPlatformCopyBytes
#define PlatformGetFileIdentity DryPlatformGetFileIdentity
#define PlatformGetNameIdentity DryPlatformGetNameIdentity
#define PlatformTestCompanion DryPlatformTestCompanion
#define time(pTime) DryTime(pTime)

// The driver's own two names: the driver that ships may be loaded beside this one.
#define FFD_Function_Table DryFFD_Function_Table
#define DllMain DryDllMain

#endif
