// The driver that only pretends: in a build with KIV_PLATFORM_DRY these functions take the places
// of the calls that touch files. Each has the outcome of its call, but what would change on the
// disk changes in memory (dry_platform.h). Included by platform.h.
#pragma once

#include <ctime> // before its name is another's

extern "C" {
decltype(CreateFileA) DryCreateFileA;
decltype(CloseHandle) DryCloseHandle;
decltype(ReadFile) DryReadFile;
decltype(WriteFile) DryWriteFile;
decltype(SetFilePointer) DrySetFilePointer;
decltype(SetEndOfFile) DrySetEndOfFile;
decltype(GetFileSize) DryGetFileSize;
decltype(FlushFileBuffers) DryFlushFileBuffers;
decltype(DeleteFileA) DryDeleteFileA;
decltype(MoveFileA) DryMoveFileA;
decltype(CreateFileMappingA) DryCreateFileMappingA;
decltype(MapViewOfFile) DryMapViewOfFile;
decltype(UnmapViewOfFile) DryUnmapViewOfFile;
decltype(GetDiskFreeSpaceExA) DryGetDiskFreeSpaceExA;
decltype(Sleep) DrySleep;
time_t DryTime(time_t* pTime);
decltype(PlatformCreatePrivateFile) DryPlatformCreatePrivateFile;
decltype(PlatformCopyPermissions) DryPlatformCopyPermissions;
decltype(PlatformSetReadOnly) DryPlatformSetReadOnly;
decltype(PlatformCopyBytes) DryPlatformCopyBytes;
decltype(PlatformGetFileIdentity) DryPlatformGetFileIdentity;
decltype(PlatformGetNameIdentity) DryPlatformGetNameIdentity;
decltype(PlatformTestCompanion) DryPlatformTestCompanion;
decltype(DllMain) DryDllMain;
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
