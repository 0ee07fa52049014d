// Everything the driver asks of the platform, behind one header.
//
// On Windows these are the platform's own calls. On Linux this layer gives the same operations
// under the same names, with the same types, constants and outcomes, as far as the driver uses
// them; docs/platform.md says what differs. The driver's sources use only this header and make no
// other platform call.
//
// Every call reports a failure by its result and a per-thread error number that GetLastError gives.
// The number is set only on failure: read it before anything else can change it.
#pragma once

#include <cstddef>
#include <cstdint>

#if defined(_WIN32)

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>

#include <mmsystem.h>

#include <mmreg.h>

#include <mmddk.h>

// The calls are named in full here. As macros the short names would rename what others call so.
#undef CreateFile
#undef DeleteFile
#undef MoveFile
#undef GetFullPathName
#undef CreateFileMapping
#undef GetSystemDirectory
#undef GetTempPath
#undef GetDiskFreeSpaceEx

#define PLATFORM_EXPORT // in xkivmp3.def

// The media layer has it, but not every set of its headers.
extern "C" BOOL WINAPI DriverCallback(DWORD_PTR dwCallback, DWORD dwFlags, HDRVR hDevice,
                                      DWORD dwMsg, DWORD_PTR dwUser, DWORD_PTR dwParam1,
                                      DWORD_PTR dwParam2);

#else

#define PLATFORM_EXPORT __attribute__((visibility("default")))
#define WINAPI
#define CALLBACK

typedef int BOOL;
typedef uint8_t BYTE;
typedef uint16_t WORD;
typedef uint32_t DWORD;
typedef int32_t LONG;
typedef unsigned int UINT;
typedef uintptr_t DWORD_PTR;
typedef size_t SIZE_T;
typedef void* HANDLE;
typedef void* HINSTANCE;
typedef void* HDRVR;
typedef void* LPVOID;
typedef void const* LPCVOID;
typedef char* LPSTR;
typedef char const* LPCSTR;
typedef DWORD* LPDWORD;
typedef LONG* PLONG;
typedef void* LPSECURITY_ATTRIBUTES; // always null
typedef void* LPOVERLAPPED;          // likewise

typedef union ULARGE_INTEGER {
    struct {
        DWORD LowPart;
        DWORD HighPart;
    } u;
    uint64_t QuadPart;
} ULARGE_INTEGER;

#define TRUE 1
#define FALSE 0
#define MAX_PATH 260

#define INVALID_HANDLE_VALUE (reinterpret_cast<HANDLE>(static_cast<intptr_t>(-1)))
#define INVALID_FILE_SIZE 0xFFFFFFFFu
#define INVALID_SET_FILE_POINTER 0xFFFFFFFFu

#define GENERIC_READ 0x80000000u
#define GENERIC_WRITE 0x40000000u
#define FILE_SHARE_READ 0x00000001u
#define FILE_SHARE_WRITE 0x00000002u
#define FILE_SHARE_DELETE 0x00000004u
#define CREATE_NEW 1u
#define CREATE_ALWAYS 2u
#define OPEN_EXISTING 3u
#define OPEN_ALWAYS 4u
#define TRUNCATE_EXISTING 5u
#define FILE_ATTRIBUTE_NORMAL 0x00000080u
#define FILE_FLAG_OPEN_REPARSE_POINT 0x00200000u
#define FILE_FLAG_DELETE_ON_CLOSE 0x04000000u
#define FILE_BEGIN 0u
#define FILE_CURRENT 1u
#define FILE_END 2u
#define HEAP_ZERO_MEMORY 0x00000008u
#define PAGE_READWRITE 0x04u
#define FILE_MAP_WRITE 0x0002u
#define SEM_FAILCRITICALERRORS 0x0001u
#define DCB_FUNCTION 0x0003u
#define DLL_PROCESS_DETACH 0u
#define DLL_PROCESS_ATTACH 1u
#define DLL_THREAD_ATTACH 2u
#define DLL_THREAD_DETACH 3u

#define NO_ERROR 0u
#define ERROR_FILE_NOT_FOUND 2u
#define ERROR_PATH_NOT_FOUND 3u
#define ERROR_TOO_MANY_OPEN_FILES 4u
#define ERROR_ACCESS_DENIED 5u
#define ERROR_INVALID_HANDLE 6u
#define ERROR_NOT_ENOUGH_MEMORY 8u
#define ERROR_INVALID_DRIVE 15u
#define ERROR_WRITE_PROTECT 19u
#define ERROR_SHARING_VIOLATION 32u
#define ERROR_HANDLE_EOF 38u
#define ERROR_BAD_NETPATH 53u
#define ERROR_NETWORK_ACCESS_DENIED 65u
#define ERROR_FILE_EXISTS 80u
#define ERROR_INVALID_PARAMETER 87u
#define ERROR_DISK_FULL 112u
#define ERROR_INSUFFICIENT_BUFFER 122u
#define ERROR_INVALID_NAME 123u
#define ERROR_NEGATIVE_SEEK 131u
#define ERROR_BAD_PATHNAME 161u
#define ERROR_ALREADY_EXISTS 183u
#define ERROR_FILENAME_EXCED_RANGE 206u
#define ERROR_FILE_TOO_LARGE 223u
#define ERROR_FILE_INVALID 1006u
#define ERROR_IO_DEVICE 1117u
#define ERROR_CANT_ACCESS_FILE 1920u

#define WAVE_FORMAT_MPEGLAYER3 0x0055
#define MPEGLAYER3_WFX_EXTRA_BYTES 12
#define MPEGLAYER3_ID_MPEG 1

#pragma pack(push, 1)
typedef struct WAVEFORMATEX {
    WORD wFormatTag;
    WORD nChannels;
    DWORD nSamplesPerSec;
    DWORD nAvgBytesPerSec;
    WORD nBlockAlign;
    WORD wBitsPerSample;
    WORD cbSize;
} WAVEFORMATEX;

typedef struct MPEGLAYER3WAVEFORMAT {
    WAVEFORMATEX wfx;
    WORD wID;
    DWORD fdwFlags;
    WORD nBlockSize;
    WORD nFramesPerBlock;
    WORD nCodecDelay;
} MPEGLAYER3WAVEFORMAT;
#pragma pack(pop)

// The target of DriverCallback with DCB_FUNCTION.
typedef void(CALLBACK* LPDRVCALLBACK)(HDRVR hdrvr, UINT uMsg, DWORD_PTR dwUser, DWORD_PTR dw1,
                                      DWORD_PTR dw2);

extern "C" {

// Opens or makes a regular file; INVALID_HANDLE_VALUE on failure. Dispositions CREATE_NEW,
// CREATE_ALWAYS, OPEN_EXISTING, OPEN_ALWAYS, TRUNCATE_EXISTING. Access GENERIC_READ and
// GENERIC_WRITE. The share mode holds against every other handle of this layer, in this process and
// in others: error 32. `lpSecurityAttributes` and `hTemplateFile` are null. With the flag
// FILE_FLAG_OPEN_REPARSE_POINT a symbolic link is not followed: error 1920.
HANDLE WINAPI CreateFileA(LPCSTR lpFileName, DWORD dwDesiredAccess, DWORD dwShareMode,
                          LPVOID lpSecurityAttributes, DWORD dwCreationDisposition,
                          DWORD dwFlagsAndAttributes, HANDLE hTemplateFile);

// Closes a file or a file mapping. Error 6 for anything that is not open, null included.
BOOL WINAPI CloseHandle(HANDLE hObject);

// Reads up to the asked number of bytes at the handle's file pointer and moves it; stops early at
// the end of the file only. `lpOverlapped` is null.
BOOL WINAPI ReadFile(HANDLE hFile, LPVOID lpBuffer, DWORD nNumberOfBytesToRead,
                     LPDWORD lpNumberOfBytesRead, LPVOID lpOverlapped);

// Writes at the handle's file pointer and moves it. On failure the count says how much was written
// before it. `lpOverlapped` is null.
BOOL WINAPI WriteFile(HANDLE hFile, LPCVOID lpBuffer, DWORD nNumberOfBytesToWrite,
                      LPDWORD lpNumberOfBytesWritten, LPVOID lpOverlapped);

// Moves the file pointer; without a high half the distance is a signed 32-bit one. The result is
// the low half of the new place; 0xFFFFFFFF means failure if GetLastError is not 0.
DWORD WINAPI SetFilePointer(HANDLE hFile, LONG lDistanceToMove, PLONG lpDistanceToMoveHigh,
                            DWORD dwMoveMethod);

// Cuts or extends the file to the file pointer.
BOOL WINAPI SetEndOfFile(HANDLE hFile);

// The low half of the size, the high half through the pointer if that is not null. 0xFFFFFFFF means
// failure if GetLastError is not 0.
DWORD WINAPI GetFileSize(HANDLE hFile, LPDWORD lpFileSizeHigh);

// Returns when the file's bytes, and its name if this handle made the file, are on the disk.
BOOL WINAPI FlushFileBuffers(HANDLE hFile);

// Removes a file; error 32 if any handle of this layer has it open.
BOOL WINAPI DeleteFileA(LPCSTR lpFileName);

// Renames within one file system; never replaces a file (error 183), never moves an open one
// (error 32).
BOOL WINAPI MoveFileA(LPCSTR lpExistingFileName, LPCSTR lpNewFileName);

// The absolute form of a path. The result is the length without the terminator, or the size needed
// with it if the buffer is too small, or 0. `lpFilePart` receives the place of the last component,
// null if there is none.
DWORD WINAPI GetFullPathNameA(LPCSTR lpFileName, DWORD nBufferLength, LPSTR lpBuffer,
                              LPSTR* lpFilePart);

DWORD WINAPI GetLastError(void);
void WINAPI SetLastError(DWORD dwErrCode);

HANDLE WINAPI GetProcessHeap(void);
LPVOID WINAPI HeapAlloc(HANDLE hHeap, DWORD dwFlags, SIZE_T dwBytes);
BOOL WINAPI HeapFree(HANDLE hHeap, DWORD dwFlags, LPVOID lpMem);

// Anonymous mappings only: hFile is INVALID_HANDLE_VALUE, the name null, the protection
// PAGE_READWRITE. Null on failure.
HANDLE WINAPI CreateFileMappingA(HANDLE hFile, LPVOID lpAttributes, DWORD flProtect,
                                 DWORD dwMaximumSizeHigh, DWORD dwMaximumSizeLow, LPCSTR lpName);
LPVOID WINAPI MapViewOfFile(HANDLE hFileMappingObject, DWORD dwDesiredAccess,
                            DWORD dwFileOffsetHigh, DWORD dwFileOffsetLow,
                            SIZE_T dwNumberOfBytesToMap);
BOOL WINAPI UnmapViewOfFile(LPCVOID lpBaseAddress);

// Without a closing separator. The result is the length, or the size needed if the buffer is too
// small, or 0.
UINT WINAPI GetSystemDirectoryA(LPSTR lpBuffer, UINT uSize);

// With a closing separator; else as GetSystemDirectoryA.
DWORD WINAPI GetTempPathA(DWORD nBufferLength, LPSTR lpBuffer);

BOOL WINAPI GetDiskFreeSpaceExA(LPCSTR lpDirectoryName, ULARGE_INTEGER* lpFreeBytesAvailable,
                                ULARGE_INTEGER* lpTotalNumberOfBytes,
                                ULARGE_INTEGER* lpTotalNumberOfFreeBytes);

// Sets the error mode of the process and returns the one before.
UINT WINAPI SetErrorMode(UINT uMode);

// Lets the calling thread rest for so long, at least.
void WINAPI Sleep(DWORD dwMilliseconds);

// Calls the function at dwCallback, DCB_FUNCTION only; false if there is none.
BOOL WINAPI DriverCallback(DWORD_PTR dwCallback, DWORD dwFlags, HDRVR hDevice, DWORD dwMsg,
                           DWORD_PTR dwUser, DWORD_PTR dwParam1, DWORD_PTR dwParam2);
}

#endif

extern "C" {

// The library's entry point, called at load and at unload by the platform's loader.
BOOL WINAPI DllMain(HINSTANCE hinstDLL, DWORD fdwReason, LPVOID lpvReserved);

// ---- What both sides add ----------------------------------------------------------------------

// The parts of a path; the four together are the path.
struct PlatformPathParts {
    char szDrive[3];       // "D:" or empty; always empty on Linux
    char szDirectory[256]; // with its closing separator, or empty
    char szStem[256];      // the last component up to its last dot
    char szExtension[256]; // from the last dot of the last component on, dot included
};

// Takes a path apart. False, with the parts not to be used, if one of them does not fit.
bool PlatformSplitPath(LPCSTR pszPath, PlatformPathParts* pParts);

// Whether two names name the same file in one directory: exact on Linux, without regard to the case
// of letters on Windows.
bool PlatformSameFileName(LPCSTR pszName1, LPCSTR pszName2);

// The last component of a path as the file system has the file: Windows takes `letter.mp3.`,
// `letter.mp3 ` and an 8.3 name for `letter.mp3`. Without such a file, only dots and blanks go that
// count for nothing; what the narrow characters can't say stays as it is, and so does everything on
// Linux. False if the path is none, or on Windows if it names a stream of a file (`letter.mp3:a`).
bool PlatformNameOnDisk(LPCSTR pszPath, char (*pszName)[MAX_PATH]);

// Makes a new file, as CreateFileA does with CREATE_NEW and FILE_ATTRIBUTE_NORMAL, that on Linux
// only its owner may read and write, whatever the umask. On Windows it has the access list of the
// file behind hLike from the beginning, and is encrypted if that one is, or is not made (error
// 6000); where hLike is null the folder decides.
HANDLE PlatformCreatePrivateFile(LPCSTR lpFileName, DWORD dwDesiredAccess, DWORD dwShareMode,
                                 HANDLE hLike);

// Gives the file behind hTo the permissions (Linux: mode, group, access list and, where the process
// may, owner) or the access list and attributes (Windows, but for the mark that
// makes it read-only there) of the one behind hFrom. Where the group can't be kept, it
// and all others get what both had. A companion, which is kept beside the other file, gets no
// set-id and execute bits, and its owner can read and write it. Where the file system has no
// permissions there is nothing to copy, which is no failure. If nobody could read hTo who may not
// read hFrom, that holds at every instant.
BOOL PlatformCopyPermissions(HANDLE hFrom, HANDLE hTo, bool bCompanion);

// Which file it is, whatever its name: no two that are there at one time have the same.
struct PlatformFileIdentity {
    uint64_t ullVolume;
    uint64_t ullFile;
    uint64_t ullBirth; // Linux, where the file system knows: ns since 1970; else 0
    bool operator==(PlatformFileIdentity const&) const = default;
};

// The identity of the file of a handle, or of the one that a path leads to, links followed.
BOOL PlatformGetFileIdentity(HANDLE hFile, PlatformFileIdentity* pIdentity);
BOOL PlatformGetNameIdentity(LPCSTR pszPath, PlatformFileIdentity* pIdentity);

// Whether the file that was opened under a path can be one that the driver keeps beside a sound
// file. Error 1920 if the path is a link, if the file is the sound file itself, and if, in a folder
// that is sticky and writable for all, its owner is none of these: the owner of the sound file, of
// the folder, of the process; root. (Elsewhere, whoever may write in the folder could replace the
// sound file.)
BOOL PlatformTestCompanion(HANDLE hFile, LPCSTR pszPath, LPCSTR pszSoundPath);

// Whether a file has a mark that forbids to write and to remove it, and setting it. On Linux no
// file has one; permissions are asked by the calls themselves.
bool PlatformIsReadOnly(LPCSTR pszPath);
BOOL PlatformSetReadOnly(LPCSTR pszPath);

// Whether what made a call on this path fail may be over in a moment: somebody has the file open,
// or, on Windows, it was deleted and its name is not gone yet.
bool PlatformMayPass(LPCSTR pszPath, DWORD dwError);

// Whether a name is still there of a file that was deleted, as on Windows for as long as somebody
// has it open.
bool PlatformIsNameLingering(LPCSTR pszPath);

// Moves up to dwBytes bytes from the file pointer of one file to that of another, and the pointers
// along with them, in large pieces and inside the system where it gains from that. The result is
// how many bytes that were: fewer than asked for, down to 0, at the end of the file, after a
// failure, and where the system has no such means, as on Windows. The caller goes on with ReadFile
// and WriteFile, which report what the matter is.
DWORD PlatformCopyBytes(HANDLE hFrom, HANDLE hTo, DWORD dwBytes);

// A number that a forked child finds changed, which has none of its parent's handles. Always 0 on
// Windows.
DWORD PlatformForks();

// ---- To look without touching: used by the dry layer, not by the driver ------------------------

// Opens a regular file to look at it. It fails, with the same errors, where CreateFileA with
// OPEN_EXISTING, this access and this share mode would; but the handle, which can only be read,
// claims nothing: whoever comes meanwhile finds the file as if nobody had it. (On Windows a claim
// can only be tested by having it, for the instant of this call.)
HANDLE PlatformLookAtFile(LPCSTR pszPath, DWORD dwDesiredAccess, DWORD dwShareMode);

// Whether DeleteFileA of the name, or MoveFileA away from it, would work now: NO_ERROR, or its
// error.
DWORD PlatformTestRemoval(LPCSTR pszPath);

// The same for CreateFileA with CREATE_NEW: error 80 if the name is there, whatever it is.
DWORD PlatformTestCreation(LPCSTR pszPath);
}

#if defined(KIV_PLATFORM_DRY)
#include "platform/dry_names.h"
#endif
