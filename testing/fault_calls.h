// The fault layer from inside: what it stands in front of.
#pragma once

#include "testing/fault_layer.h"

#include <optional>

// DO(call) for each call that is wrapped: those that Windows has, and those that platform/ adds
// there.
#define FOR_EACH_CALL_OF_WINDOWS(DO)                                                               \
    DO(CreateFileA)                                                                                \
    DO(CloseHandle)                                                                                \
    DO(ReadFile)                                                                                   \
    DO(WriteFile)                                                                                  \
    DO(SetFilePointer)                                                                             \
    DO(SetEndOfFile)                                                                               \
    DO(GetFileSize)                                                                                \
    DO(FlushFileBuffers)                                                                           \
    DO(DeleteFileA)                                                                                \
    DO(MoveFileA)                                                                                  \
    DO(GetFullPathNameA)                                                                           \
    DO(HeapAlloc)                                                                                  \
    DO(HeapFree)                                                                                   \
    DO(CreateFileMappingA)                                                                         \
    DO(MapViewOfFile)                                                                              \
    DO(UnmapViewOfFile)                                                                            \
    DO(GetSystemDirectoryA)                                                                        \
    DO(GetTempPathA)                                                                               \
    DO(GetDiskFreeSpaceExA)
#define FOR_EACH_ADDED_CALL(DO)                                                                    \
    DO(DriverCallback)                                                                             \
    DO(PlatformCreatePrivateFile)                                                                  \
    DO(PlatformCopyPermissions)                                                                    \
    DO(PlatformGetFileIdentity)                                                                    \
    DO(PlatformGetNameIdentity)                                                                    \
    DO(PlatformTestCompanion)                                                                      \
    DO(PlatformCopyBytes)

// The linker's names: what takes the place of a call, and the call. A layer may have it under a
// name of its own, which is a macro.
#define JOIN_NAMES(prefix, call) prefix##call
#define JOIN(prefix, call) JOIN_NAMES(prefix, call)
#define WRAP(call) JOIN(__wrap_, call)
#define REAL(call) JOIN(__real_, call)

extern "C" {
#define DECLARE(call) decltype(call) WRAP(call), REAL(call);
FOR_EACH_CALL_OF_WINDOWS(DECLARE)
FOR_EACH_ADDED_CALL(DECLARE)
#undef DECLARE
}

namespace platform_faults {

// What is pretended of Windows: whether encryption works, if it is met at all, and how often a
// removed name is still met.
std::optional<bool> encryption_works();
unsigned lingers();

} // namespace platform_faults
