// A layer of the tests in front of any platform layer: every call can be counted, watched, made to
// fail, made to do part of its work, or made the last thing the process does. The linker puts it
// there (--wrap, see CMakeLists.txt): the driver and the layer below are those that ship.
//
// A rule names a kind of call and which one of them from now on, counted from 1. Rules stay until
// reset. Counting is for the whole process; the tests that use it run one thread. What the layer
// below calls by itself does not count. A flush is not waited for: the tests end processes and not
// the machine, and there are thousands.
#pragma once

#include "platform/platform.h"

#include <cstdint>

namespace platform_faults {

enum class Call {
    CreateFile, // PlatformCreatePrivateFile too
    CloseHandle,
    ReadFile,
    WriteFile,
    SetFilePointer,
    SetEndOfFile,
    GetFileSize,
    FlushFileBuffers,
    DeleteFile,
    MoveFile,
    GetFullPathName,
    HeapAlloc,
    HeapFree,
    CreateFileMapping,
    MapViewOfFile,
    UnmapViewOfFile,
    GetSystemDirectory,
    GetTempPath,
    GetDiskFreeSpaceEx,
    DriverCallback,
    CopyPermissions,
    GetFileIdentity,
    GetNameIdentity,
    TestCompanion,
    CopyBytes,
    Any // in a question: every kind above
};

// Forgets all rules, counts and the watcher, and the pretended free space.
void reset();

// How many calls of the kind there were since reset.
unsigned count(Call call);

// From now on this is called before each call.
void watch(void (*watcher)(Call));

// The nth call from now on, and the `times` - 1 after it, does nothing and fails with the error.
void fail(Call call, unsigned nth, DWORD dwError, unsigned times = 1);

// The nth ReadFile, WriteFile or CopyBytes from now on moves half of its bytes. A
// read then succeeds with the smaller count, as a copy does. A write fails with the error, or, with
// 0, succeeds with the smaller count.
void halve(Call call, unsigned nth, DWORD dwError);

// The process ends at once, without any clean-up, before the nth call from now on that is to
// change the disk: CreateFile that may make or empty a file, WriteFile of any bytes, SetEndOfFile,
// DeleteFile, MoveFile, CopyPermissions, CopyBytes. The exit code is 86.
void stop_before_change(unsigned nth);

// What a stop does in place of ending the process. It does not return. For a system, or a layer, on
// which a test can't have the session in a process of its own.
void set_end_of_process(void (*end)());

// How many changes of the disk there were since reset.
unsigned changes();

// From now on GetDiskFreeSpaceEx reports this many bytes free.
void pretend_free_bytes(uint64_t ullFreeBytes);

// What is open at this moment, over all threads.
unsigned open_handles();
unsigned heap_blocks();
unsigned mapped_views();

// Closes all handles, as the end of the process would, behind the back of whoever opened them, and
// forgets what memory there was.
void abandon_everything();

// Windows only: from now on every file is encrypted that is opened, and of those that are made
// each that was asked to be, if bWorks.
void pretend_encryption(bool bWorks);

// Windows only: a name outlives its removal, as if another program had the file open, until it has
// been met so many times. An open of it gives error 5 or 303, a removal 5, and a rename onto it 183
// or 5.
void linger_after_removal(unsigned nMeetings);

} // namespace platform_faults
