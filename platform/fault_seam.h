// How the sources of the platform layer reach the fault seam of faults.h. In the library that ships
// all of these are nothing.
#pragma once

#include "platform/platform.h"

#if defined(KIV_PLATFORM_FAULTS)

#include "platform/faults.h"

#include <optional>

namespace platform_faults {

enum class Tally { Handles, HeapBlocks, Views };

// Counts the call. True if a rule makes it fail; the last error is set then.
bool enter(Call call);

// The number of bytes that the present ReadFile or WriteFile is to move.
DWORD halved(DWORD dwBytesAsked);

// The error of the rule that halved the present call, else NO_ERROR.
DWORD halved_error();

// Counts a change of the disk that is about to be made, or ends the process before it.
void before_change();

// Puts the pretended free space, if there is one, in the place of the true one.
uint64_t free_bytes(uint64_t ullTrueFreeBytes);

// What is pretended of Windows: whether encryption works, if it is met at all; how often a removed
// name is still met; the attributes of a file.
std::optional<bool> encryption_works();
unsigned lingers();
DWORD attributes(HANDLE hFile, DWORD dwTrueAttributes);

void add_to(Tally tally, int iDifference);

} // namespace platform_faults

// First in a call: leaves it with the result `failed` if it is to fail.
#define FAULT_POINT(call, failed)                                                                  \
    do {                                                                                           \
        if (platform_faults::enter(platform_faults::Call::call))                                   \
            return failed;                                                                         \
    } while (false)
#define FAULT_HALVED(bytes) platform_faults::halved(bytes)
#define FAULT_HALVED_ERROR() platform_faults::halved_error()
#define FAULT_CHANGE() platform_faults::before_change()
#define FAULT_FREE_BYTES(bytes) platform_faults::free_bytes(bytes)
#define FAULT_ATTRIBUTES(file, attributes_) platform_faults::attributes(file, attributes_)
#define FAULT_TALLY(tally, difference)                                                             \
    platform_faults::add_to(platform_faults::Tally::tally, difference)

#else

#define FAULT_POINT(call, failed) static_cast<void>(0)
#define FAULT_HALVED(bytes) (bytes)
#define FAULT_HALVED_ERROR() NO_ERROR
#define FAULT_CHANGE() static_cast<void>(0)
#define FAULT_FREE_BYTES(bytes) (bytes)
#define FAULT_ATTRIBUTES(file, attributes_) (attributes_)
#define FAULT_TALLY(tally, difference) static_cast<void>(0)

#endif
