// The test build on Windows: the seam's functions take the places of the platform's calls. Each
// does what its call does, unless a rule of faults.h says otherwise. Included by platform.h.
#pragma once

extern "C" {
HANDLE WINAPI FaultCreateFileA(LPCSTR lpFileName, DWORD dwDesiredAccess, DWORD dwShareMode,
                               LPSECURITY_ATTRIBUTES lpSecurityAttributes,
                               DWORD dwCreationDisposition, DWORD dwFlagsAndAttributes,
                               HANDLE hTemplateFile);
BOOL WINAPI FaultCloseHandle(HANDLE hObject);
BOOL WINAPI FaultReadFile(HANDLE hFile, LPVOID lpBuffer, DWORD nNumberOfBytesToRead,
                          LPDWORD lpNumberOfBytesRead, LPOVERLAPPED lpOverlapped);
BOOL WINAPI FaultWriteFile(HANDLE hFile, LPCVOID lpBuffer, DWORD nNumberOfBytesToWrite,
                           LPDWORD lpNumberOfBytesWritten, LPOVERLAPPED lpOverlapped);
DWORD WINAPI FaultSetFilePointer(HANDLE hFile, LONG lDistanceToMove, PLONG lpDistanceToMoveHigh,
                                 DWORD dwMoveMethod);
BOOL WINAPI FaultSetEndOfFile(HANDLE hFile);
DWORD WINAPI FaultGetFileSize(HANDLE hFile, LPDWORD lpFileSizeHigh);
BOOL WINAPI FaultFlushFileBuffers(HANDLE hFile);
BOOL WINAPI FaultDeleteFileA(LPCSTR lpFileName);
DWORD WINAPI FaultGetFileAttributesA(LPCSTR lpFileName);
BOOL WINAPI FaultMoveFileA(LPCSTR lpExistingFileName, LPCSTR lpNewFileName);
DWORD WINAPI FaultGetFullPathNameA(LPCSTR lpFileName, DWORD nBufferLength, LPSTR lpBuffer,
                                   LPSTR* lpFilePart);
LPVOID WINAPI FaultHeapAlloc(HANDLE hHeap, DWORD dwFlags, SIZE_T dwBytes);
BOOL WINAPI FaultHeapFree(HANDLE hHeap, DWORD dwFlags, LPVOID lpMem);
HANDLE WINAPI FaultCreateFileMappingA(HANDLE hFile, LPSECURITY_ATTRIBUTES lpAttributes,
                                      DWORD flProtect, DWORD dwMaximumSizeHigh,
                                      DWORD dwMaximumSizeLow, LPCSTR lpName);
LPVOID WINAPI FaultMapViewOfFile(HANDLE hFileMappingObject, DWORD dwDesiredAccess,
                                 DWORD dwFileOffsetHigh, DWORD dwFileOffsetLow,
                                 SIZE_T dwNumberOfBytesToMap);
BOOL WINAPI FaultUnmapViewOfFile(LPCVOID lpBaseAddress);
UINT WINAPI FaultGetSystemDirectoryA(LPSTR lpBuffer, UINT uSize);
DWORD WINAPI FaultGetTempPathA(DWORD nBufferLength, LPSTR lpBuffer);
BOOL WINAPI FaultGetDiskFreeSpaceExA(LPCSTR lpDirectoryName, PULARGE_INTEGER lpFreeBytesAvailable,
                                     PULARGE_INTEGER lpTotalNumberOfBytes,
                                     PULARGE_INTEGER lpTotalNumberOfFreeBytes);
BOOL WINAPI FaultDriverCallback(DWORD_PTR dwCallback, DWORD dwFlags, HDRVR hDevice, DWORD dwMsg,
                                DWORD_PTR dwUser, DWORD_PTR dwParam1, DWORD_PTR dwParam2);
}

#define CreateFileA FaultCreateFileA
#define CloseHandle FaultCloseHandle
#define ReadFile FaultReadFile
#define WriteFile FaultWriteFile
#define SetFilePointer FaultSetFilePointer
#define SetEndOfFile FaultSetEndOfFile
#define GetFileSize FaultGetFileSize
#define FlushFileBuffers FaultFlushFileBuffers
#define DeleteFileA FaultDeleteFileA
#define GetFileAttributesA FaultGetFileAttributesA
#define MoveFileA FaultMoveFileA
#define GetFullPathNameA FaultGetFullPathNameA
#define HeapAlloc FaultHeapAlloc
#define HeapFree FaultHeapFree
#define CreateFileMappingA FaultCreateFileMappingA
#define MapViewOfFile FaultMapViewOfFile
#define UnmapViewOfFile FaultUnmapViewOfFile
#define GetSystemDirectoryA FaultGetSystemDirectoryA
#define GetTempPathA FaultGetTempPathA
#define GetDiskFreeSpaceExA FaultGetDiskFreeSpaceExA
#define DriverCallback FaultDriverCallback
